// Tokenisers that cut a caller's buffer in place, the word pickers over a
// command line, and the line walker.
#include "base/tokens.h"

#include <cstring>

#include "base/report.h"
#include "base/str.h"

namespace korv {

namespace {

char kEquals[] = "=";
char kComma[] = ",";

bool in_set(char c, const char* set) { return c != 0 && std::strchr(set, c) != nullptr; }

// The quoted splitters share one walk. `each_sep` selects the token_split2
// rule (every separator ends a token); otherwise runs of separators are
// skipped. `rm_quot` drops the opening quote and cuts the closing one out.
int quoted_split(char* s, char** p, const char* sep, int tmax, bool each_sep, bool rm_quot) {
    if (tmax < 1) return 0;
    int n = 0;
    char* q = s;
    char sep1[2] = {sep[0], 0};
    const char* seps = each_sep ? sep1 : sep;
    if (each_sep && !*q) {
        p[0] = nullptr;
        return 0;
    }
    for (;;) {
        if (!each_sep)
            while (in_set(*q, seps)) q++;
        if (!*q && !each_sep) break;
        if (n + 2 >= tmax) break;
        char* tok = q;
        char* w = q;  // where kept bytes go (behind q when a quote is cut out)
        if (*q == '"') {
            if (rm_quot) {
                tok = ++q;
                w = q;
            } else {
                *w++ = *q++;
            }
            while (*q && *q != '"') *w++ = *q++;
            if (*q == '"') {
                if (!rm_quot) *w++ = '"';
                q++;
            }
        }
        while (*q && !in_set(*q, seps)) *w++ = *q++;
        p[n++] = tok;
        bool more = *q != 0;
        if (more) q++;
        *w = 0;
        if (!more) break;
    }
    p[n] = nullptr;
    return n;
}

// Copies a line of `n` bytes plus "\r\n" into tmp, cutting the text to fit.
char* copy_with_crlf(const char* from, size_t n, char* tmp) {
    if (n > static_cast<size_t>(kLineTmp - 2)) n = kLineTmp - 2;
    std::memcpy(tmp, from, n);
    tmp[n] = '\r';
    tmp[n + 1] = '\n';
    tmp[n + 2] = 0;
    return tmp;
}

void lines_restore(Strlines* v) {
    if (v->savedp) {
        *v->savedp = v->saved;
        v->savedp = nullptr;
    }
}

// Terminates the text at `at`, remembering the byte it replaces.
void lines_cut(Strlines* v, char* at) {
    if (*at == 0) return;
    v->savedp = at;
    v->saved = *at;
    *at = 0;
}

char* lines_end(Strlines* v) { return v->start + v->len; }

// The remainder of the buffer as the last line, or null when it is empty.
char* lines_remainder(Strlines* v) {
    char* end = lines_end(v);
    if (v->upto >= end) return nullptr;
    char* line = v->upto;
    lines_cut(v, end);
    v->upto = end;
    return line;
}

char* find_crlf(char* from, char* end) {
    for (char* q = from; q + 1 < end; q++)
        if (q[0] == '\r' && q[1] == '\n') return q;
    return nullptr;
}

}  // namespace

char* mystrtok(char* start, const char* toks, char** upto) {
    char* q = start ? start : *upto;
    if (!q) return nullptr;
    while (in_set(*q, toks)) q++;
    if (!*q) {
        *upto = q;
        return nullptr;
    }
    char* tok = q;
    while (*q && !in_set(*q, toks)) q++;
    if (*q) *q++ = 0;
    *upto = q;
    return tok;
}

int token_split(char* s, char** p, const char* sep, int tmax) {
    if (tmax < 1) return 0;
    int n = 0;
    char* q = s;
    while (n < tmax - 1) {
        while (in_set(*q, sep)) q++;
        if (!*q) break;
        p[n++] = q;
        if (n == tmax - 1) break;  // the last token keeps the tail
        while (*q && !in_set(*q, sep)) q++;
        if (!*q) break;
        *q++ = 0;
    }
    p[n] = nullptr;
    return n;
}

int token_split2(char* s, char** p, const char* sep, int tmax) {
    if (tmax < 1) return 0;
    int n = 0;
    char c = sep[0];
    char* q = s;
    if (*q) {
        for (;;) {
            if (n + 5 >= tmax) {
                base_report("Too many tokens in this header line\n");
                break;
            }
            p[n++] = q;
            char* at = c ? std::strchr(q, c) : nullptr;
            if (!at) break;
            *at = 0;
            q = at + 1;
        }
    }
    p[n] = nullptr;
    return n;
}

int quoted_token_split(char* s, char** p, const char* sep, int tmax) {
    return quoted_split(s, p, sep, tmax, false, false);
}

int quoted_token_split_rm_quot(char* s, char** p, const char* sep, int tmax) {
    return quoted_split(s, p, sep, tmax, false, true);
}

int quoted_token_split2_rm_quot(char* s, char** p, const char* sep, int tmax) {
    return quoted_split(s, p, sep, tmax, true, true);
}

int token_quote(char* s, char** p, int tmax) {
    if (tmax < 1) return 0;
    int n = 0;
    char* q = s;
    while (n < tmax - 1) {
        while (*q == ' ' || *q == '\t') q++;
        if (!*q) break;
        if (*q == '=') {
            p[n++] = kEquals;
            q++;
            continue;
        }
        if (*q == '"') {
            char* tok = ++q;
            char* w = q;
            while (*q && *q != '"') {
                if (*q == '\\' && q[1]) q++;
                *w++ = *q++;
            }
            if (*q) q++;  // the closing quote
            *w = 0;       // w is never past q, so this cuts only spent bytes
            p[n++] = tok;
            continue;
        }
        p[n++] = q;
        while (*q && *q != ' ' && *q != '\t' && *q != '=') q++;
        if (*q == '=') {
            *q++ = 0;
            if (n < tmax - 1) p[n++] = kEquals;
        } else if (*q) {
            *q++ = 0;
        }
    }
    p[n] = nullptr;
    return n;
}

int lib_token_comma(char* s, char** p, int tmax) {
    static const char kSep[] = "\r\n \t,";
    if (tmax < 1) return 0;
    int n = 0;
    char* q = s;
    while (n < tmax - 1) {
        while (in_set(*q, kSep)) q++;
        if (!*q) break;
        p[n++] = q;
        while (*q && !in_set(*q, kSep)) q++;
        if (!*q) break;
        char* end = q;
        while (*q == ' ' || *q == '\t' || *q == '\r' || *q == '\n') q++;
        bool comma = *q == ',';
        if (comma) q++;
        *end = 0;
        if (comma && n < tmax - 1) p[n++] = kComma;
    }
    p[n] = nullptr;
    return n;
}

char* lib_get_word(char* out, const char* xcmd, int want) {
    char copy[kGetWordMax + 1];
    char* p[kGetWordWords + 1];
    out[0] = 0;
    ncpy(copy, xcmd, kGetWordMax);
    int n = token_split(copy, p, " \r\n\t", kGetWordWords + 1);
    if (want >= 1 && want <= n) ncpy(out, p[want - 1], kLastIndex);
    return out;
}

std::string lib_get_word(const char* xcmd, int want) {
    char out[kBufSize];
    return lib_get_word(out, xcmd, want);
}

char* lib_get_rest(char* out, const char* cmd, int n) {
    out[0] = 0;
    const char* q = cmd;
    for (int i = 0; i < n; i++) {
        q = std::strchr(q, ' ');
        if (!q) return out;
        q++;
    }
    ncpy(out, q, kGetRestMax);
    return out;
}

std::string lib_get_rest(const char* cmd, int n) {
    char out[kBufSize];
    return lib_get_rest(out, cmd, n);
}

void str_lines_start(Strlines* v, char* s, int len) {
    v->start = s;
    v->savedp = nullptr;
    v->saved = 0;
    v->upto = s;
    v->len = len < 0 ? 0 : len;
}

void str_lines_end(Strlines* v) { lines_restore(v); }

char* str_lines_next(Strlines* v) {
    lines_restore(v);
    char* end = lines_end(v);
    if (v->upto >= end) return nullptr;
    char* line = v->upto;
    char* lf = static_cast<char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
    if (!lf) return lines_remainder(v);
    char* cut = (lf > line && lf[-1] == '\r') ? lf - 1 : lf;
    lines_cut(v, cut);
    v->upto = lf + 1;
    return line;
}

char* str_lines_rest(Strlines* v, int* len) {
    if (len) *len = static_cast<int>(lines_end(v) - v->upto);
    return v->upto;
}

char* str_lines_next_crlf(Strlines* v, int* goteol) {
    lines_restore(v);
    *goteol = 0;
    char* end = lines_end(v);
    if (v->upto >= end) return nullptr;
    char* line = v->upto;
    char* cr = find_crlf(line, end);
    if (!cr) return lines_remainder(v);
    v->upto = cr + 2;
    lines_cut(v, v->upto);
    *goteol = 1;
    return line;
}

char* str_lines_next_any(Strlines* v, int* goteol, int* ended_with_cr, char* tmp) {
    lines_restore(v);
    *goteol = 0;
    char* end = lines_end(v);
    if (v->upto < end && *ended_with_cr) {
        if (*v->upto == '\n') v->upto++;
        *ended_with_cr = 0;
    }
    if (v->upto >= end) return nullptr;
    char* line = v->upto;
    char* q = line;
    while (q < end && *q != '\r' && *q != '\n') q++;
    if (q == end) return lines_remainder(v);
    *goteol = 1;
    if (q[0] == '\r' && q + 1 < end && q[1] == '\n') {
        v->upto = q + 2;
        lines_cut(v, v->upto);
        return line;
    }
    if (q[0] == '\r' && q + 1 == end) *ended_with_cr = 1;
    v->upto = q + 1;
    return copy_with_crlf(line, static_cast<size_t>(q - line), tmp);
}

}  // namespace korv
