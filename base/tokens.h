// Tokenisers that cut a caller's buffer in place, word pickers over a command
// line, and the line walker that splits a buffer into lines and mends it.
#pragma once

#include <string>

namespace korv {

// Tokenisers. Each cuts `s` in place, fills `p` (room for `tmax` entries)
// with the tokens, ends it with a null entry and returns the count. A `tmax`
// below 1 writes nothing and returns 0. Separators are a set of characters.

// Re-entrant strtok: a non-null `start` begins, a null one goes on from
// *upto. Returns null at the end.
char* mystrtok(char* start, const char* toks, char** upto);
// Skips runs of separators, so no empty tokens. Stops at tmax - 1 tokens;
// the rest of the string then stays in the last token's tail.
int token_split(char* s, char** p, const char* sep, int tmax);
// Splits at each occurrence of sep[0] only, so empty tokens exist (an empty
// `s` has none). Once the count plus 5 reaches `tmax` it logs "Too many
// tokens in this header line" and stops.
int token_split2(char* s, char** p, const char* sep, int tmax);
// As token_split, but a token that begins with '"' runs to the closing '"'
// whatever lies in it, and then to the next separator; the quotes stay. An
// unclosed quote takes the rest. Stops once the count plus 2 reaches tmax.
int quoted_token_split(char* s, char** p, const char* sep, int tmax);
// The same, with the leading quote skipped and the closing one cut out.
int quoted_token_split_rm_quot(char* s, char** p, const char* sep, int tmax);
// The same quoting over the token_split2 rule: each sep[0] outside quotes
// ends a token, so empty tokens exist.
int quoted_token_split2_rm_quot(char* s, char** p, const char* sep, int tmax);
// The name=value tokeniser: blanks and tabs separate; a quoted token drops
// its quotes and a backslash in it protects the next byte; '=' outside quotes
// is a token of its own, the static "=". At most tmax - 1 tokens.
int token_quote(char* s, char** p, int tmax);
// Separators "\r\n \t,"; a comma that follows a word after optional white
// space gives an extra token, the static ",". At most tmax - 1 tokens.
int lib_token_comma(char* s, char** p, int tmax);

// Words of a command line.
inline constexpr int kGetWordMax = 999;   // bytes of the line looked at
inline constexpr int kGetWordWords = 99;  // words at most
inline constexpr int kGetRestMax = 999;   // bytes of the rest kept

// Word number `want` (from 1) of `xcmd`, split on " \r\n\t" over a copy of
// its first kGetWordMax bytes, at most kGetWordWords words (the last keeps the
// tail). `out` needs kBufSize bytes; empty when there is no such word.
char* lib_get_word(char* out, const char* xcmd, int want);
std::string lib_get_word(const char* xcmd, int want);
// The text after the n-th blank of `cmd` (each search starting one byte past
// the last blank), at most kGetRestMax bytes; "" when there are fewer blanks;
// all of `cmd` for n 0. `out` needs kBufSize bytes.
char* lib_get_rest(char* out, const char* cmd, int n);
std::string lib_get_rest(const char* cmd, int n);

// Line walker over a buffer of `len` bytes. The byte at s[len] must be
// addressable (normally the buffer's terminator): a last line that runs to
// the end is terminated there. Each call first puts back the byte that the
// previous one overwrote, and str_lines_end puts back the last one, so the
// buffer is whole again at the end.
struct STRLINES {
    char* start = nullptr;   // start of the buffer
    char* savedp = nullptr;  // the byte now overwritten by a terminator, or null
    char saved = 0;          // its old value
    char* upto = nullptr;    // where the next line begins
    int len = 0;             // length of the buffer
};
using Strlines = STRLINES;

inline constexpr int kLineTmp = 999;  // str_lines_next_any's copy, "\r\n" included

void str_lines_start(Strlines* v, char* s, int len);
void str_lines_end(Strlines* v);
// The next line without its LF or CRLF, terminated in place. At the end of the
// buffer: null if the remainder is empty, else the remainder.
char* str_lines_next(Strlines* v);
// Everything not yet walked, and its length in *len.
char* str_lines_rest(Strlines* v, int* len);
// The next line that ends in CRLF, with the CRLF kept (the byte after it is
// replaced by a terminator), *goteol 1. A bare LF does not end a line.
// Without a final CRLF: the rest with *goteol 0; null when nothing is left.
char* str_lines_next_crlf(Strlines* v, int* goteol);
// As str_lines_next_crlf, but a bare CR or bare LF ends a line too: such a
// line is copied to `tmp` (kLineTmp + 1 bytes, the text cut to fit) with
// "\r\n" added. A CR that ends the buffer sets *ended_with_cr, so that an LF
// at the start of the next buffer is skipped rather than taken as an empty
// line; the caller keeps the flag across buffers, starting at 0.
char* str_lines_next_any(Strlines* v, int* goteol, int* ended_with_cr, char* tmp);

}  // namespace korv
