// Bounded copies, trims, case-blind comparison, truth tests, the string
// hashes and the number words and formats that the whole server shares.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace korv {

// Names and paths travel in buffers of this many bytes; callers pass the last
// usable index, kLastIndex, as `len`.
inline constexpr int kBufSize = 1000;
inline constexpr int kLastIndex = kBufSize - 1;

// Visible cuts of the trimming helpers: at most this many bytes are copied.
inline constexpr int kTrimMax = 990;          // lib_trim_spaces, lib_trim_qspaces
inline constexpr int kStripQuotesMax = 100;   // lib_strip_quotes
inline constexpr int kNiceCopyMax = 100;      // nice_atoi's lower-case copy

// ---- bounded copies --------------------------------------------------------

// `len` is the last index that may hold the terminator, so `dst` needs len + 1
// bytes. Copies at most `len` bytes, terminates after them, and always also
// writes a zero at dst[len]. A negative `len` writes nothing. Returns dst.
char* ncpy(char* dst, const char* src, int len);
// As ncpy; a null `src` counts as "".
char* ncpy_nullok(char* dst, const char* src, int len);
// Appends while the whole stays within `len` bytes; terminates, and also
// writes a zero at dst[len]. Returns dst.
char* ncat(char* dst, const char* src, int len);
// Bounded formatting into a buffer of `size` bytes (snprintf semantics: the
// text is cut to size - 1 bytes and always terminated). Returns bf.
char* lprintf(char* bf, int size, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Appends `add` to `s`. Returns 1.
int str_vappend(std::string& s, std::string_view add);

// ASCII lower-case and upper-case copies.
std::string str_lower(std::string_view s);
std::string str_upper(std::string_view s);

// Skips leading blanks and tabs, copies at most kTrimMax bytes to `tmp`
// (kTrimMax + 1 bytes), removes trailing blanks and tabs; returns tmp. The
// byte at index 0 of `tmp` is never removed.
char* lib_trim_spaces(const char* s, char* tmp);
std::string lib_trim_spaces(std::string_view s);
// The same, with '"' counted as a blank on both sides.
char* lib_trim_qspaces(const char* s, char* tmp);
std::string lib_trim_qspaces(std::string_view s);
// If `s` begins with '"': copies at most kStripQuotesMax bytes after it to
// `tmp` (kStripQuotesMax + 1 bytes), cuts at the next '"', returns tmp.
// Otherwise returns s.
const char* lib_strip_quotes(const char* s, char* tmp);
// Copies `src`, then fills with blanks up to `width` and terminates there; a
// longer `src` stays as it is. `tmp` is a kBufSize buffer: the text is cut to
// kLastIndex bytes and the width bounded by it.
char* lib_pad_right(const char* src, int width, char* tmp);
std::string lib_pad_right(std::string_view src, int width);

// ---- comparison and truth ---------------------------------------------------

int strcmpnc(const char* a, const char* b);
int strncmpnc(const char* a, const char* b, size_t n);
// Case-blind strstr: the first place of `needle` in `hay`, or null.
const char* strstrnc(const char* hay, const char* needle);

// 1 for "true", "yes", "on", "checked", "selected" in any case; 0 otherwise,
// also for null and "".
int istrue(const char* string);
// 1 for "false", "no", "off" in any case; 0 otherwise ("" is neither).
int isfalse(const char* string);
// Looks only at the first letter: 'y' or 't' in any case.
int lib_istrue(const char* s);
// 1 if only digits and dots remain after one optional leading '['; a ']' may
// be the last byte. A text with nothing left to look at is not an address.
int lib_isip(const char* s);

// ---- hashes ------------------------------------------------------------------

// The bucket hash that stored layouts depend on: an unsigned 32-bit total of
// the signed bytes, taken four at a time at shifts 0, 8, 16 and 24, then the
// total mod max. Never change it. A `max` below 1 gives 0.
int lib_str_hash(const char* s, int max);
// The former hash: total = total * 8 + byte over a signed 32-bit total, then
// the absolute value of total mod max.
int lib_str_hash_old(const char* s, int max);

// ---- numbers -----------------------------------------------------------------

// A signed 64-bit decimal after optional blanks (strtoll: clamped at the
// limits, 0 for no digits or null). REST offsets and quota counts.
long long int64bit_atoi(const char* s);
// "%lld" of `x`.
std::string i64_to_cstr(long long x);

// atoi, then the suffix of a lower-case copy (at most kNiceCopyMax bytes, cut
// at the first blank or tab): "gig" multiplies by 2^30, else any 'm' by 2^20,
// else any 'k' by 2^10. The product wraps at 32 bits ("2gig" is negative).
int nice_atoi(const char* s);
// The same words with the factors 1e9, 1e6 and 1000; the number is still read
// as an integer, so fractions are dropped.
double nice_atof(const char* s);
// "%d"; above 90000 "%dk" of d / 1000; above 5000000 "%dk" of d / 1000000.
// `tmp` needs 16 bytes.
char* nice_num(int d, char* tmp);
std::string nice_num(int d);
// Puts thousands commas into the integer part of `number`, in place, within a
// buffer of `bfsz` bytes. Returns number, or null (and leaves it) when the
// result would not fit.
char* comma_number(char* number, int bfsz);

}  // namespace korv
