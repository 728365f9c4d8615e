// Bounded copies, trims, case-blind comparison, truth tests, the string
// hashes and the number words and formats.
#include "base/str.h"

#include <strings.h>

#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace korv {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_blank_or_quote(char c) { return c == ' ' || c == '\t' || c == '"'; }

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

// Shared body of the two trims: skip leading `skip` bytes, copy at most
// kTrimMax, drop trailing ones but never the byte at index 0.
template <typename Pred>
char* trim_into(const char* s, char* tmp, Pred skip) {
    while (*s && skip(*s)) s++;
    ncpy(tmp, s, kTrimMax);
    for (size_t i = std::strlen(tmp); i > 1 && skip(tmp[i - 1]); i--) tmp[i - 1] = 0;
    return tmp;
}

template <typename Pred>
std::string trim_string(std::string_view s, Pred skip) {
    size_t a = 0;
    while (a < s.size() && skip(s[a])) a++;
    std::string out(s.substr(a, kTrimMax));
    size_t n = std::strlen(out.c_str());  // a zero byte ends the text, as in the buffer form
    while (n > 1 && skip(out[n - 1])) n--;
    out.resize(n);
    return out;
}

// The multiplier that a nice_atoi/nice_atof suffix asks for: 3 for "gig",
// 2 for 'm', 1 for 'k', 0 for none.
int suffix_power(const char* s) {
    char copy[kNiceCopyMax + 1];
    ncpy(copy, s, kNiceCopyMax);
    for (char* q = copy; *q; q++) {
        if (is_blank(*q)) {
            *q = 0;
            break;
        }
        *q = lower(*q);
    }
    if (std::strstr(copy, "gig")) return 3;
    if (std::strchr(copy, 'm')) return 2;
    if (std::strchr(copy, 'k')) return 1;
    return 0;
}

}  // namespace

char* ncpy(char* dst, const char* src, int len) {
    if (len < 0) return dst;
    int i = 0;
    for (; i < len && src[i]; i++) dst[i] = src[i];
    dst[i] = 0;
    dst[len] = 0;
    return dst;
}

char* ncpy_nullok(char* dst, const char* src, int len) { return ncpy(dst, src ? src : "", len); }

char* ncat(char* dst, const char* src, int len) {
    if (len < 0) return dst;
    int i = 0;
    while (i < len && dst[i]) i++;
    for (; i < len && *src; i++, src++) dst[i] = *src;
    dst[i] = 0;
    dst[len] = 0;
    return dst;
}

char* lprintf(char* bf, int size, const char* format, ...) {
    if (size <= 0) return bf;
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(bf, static_cast<size_t>(size), format, ap);
    va_end(ap);
    return bf;
}

int str_vappend(std::string& s, std::string_view add) {
    s.append(add);
    return 1;
}

std::string str_lower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = lower(c);
    return out;
}

std::string str_upper(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

char* lib_trim_spaces(const char* s, char* tmp) { return trim_into(s, tmp, is_blank); }
std::string lib_trim_spaces(std::string_view s) { return trim_string(s, is_blank); }
char* lib_trim_qspaces(const char* s, char* tmp) { return trim_into(s, tmp, is_blank_or_quote); }
std::string lib_trim_qspaces(std::string_view s) { return trim_string(s, is_blank_or_quote); }

const char* lib_strip_quotes(const char* s, char* tmp) {
    if (*s != '"') return s;
    ncpy(tmp, s + 1, kStripQuotesMax);
    if (char* q = std::strchr(tmp, '"')) *q = 0;
    return tmp;
}

char* lib_pad_right(const char* src, int width, char* tmp) {
    ncpy(tmp, src, kLastIndex);
    if (width > kLastIndex) width = kLastIndex;
    int n = static_cast<int>(std::strlen(tmp));
    if (n < width) {
        std::memset(tmp + n, ' ', static_cast<size_t>(width - n));
        tmp[width] = 0;
    }
    return tmp;
}

std::string lib_pad_right(std::string_view src, int width) {
    std::string out(src);
    if (width > 0 && out.size() < static_cast<size_t>(width)) out.resize(static_cast<size_t>(width), ' ');
    return out;
}

int strcmpnc(const char* a, const char* b) { return strcasecmp(a, b); }

int strncmpnc(const char* a, const char* b, size_t n) { return strncasecmp(a, b, n); }

const char* strstrnc(const char* hay, const char* needle) {
    size_t n = std::strlen(needle);
    for (; *hay; hay++)
        if (strncasecmp(hay, needle, n) == 0) return hay;
    return n == 0 ? hay : nullptr;
}

int istrue(const char* string) {
    if (!string) return 0;
    for (const char* w : {"true", "yes", "on", "checked", "selected"})
        if (strcasecmp(string, w) == 0) return 1;
    return 0;
}

int isfalse(const char* string) {
    if (!string) return 0;
    for (const char* w : {"false", "no", "off"})
        if (strcasecmp(string, w) == 0) return 1;
    return 0;
}

int lib_istrue(const char* s) {
    if (!s) return 0;
    char c = lower(*s);
    return c == 'y' || c == 't';
}

int lib_isip(const char* s) {
    if (!s) return 0;
    if (*s == '[') s++;
    if (!*s) return 0;
    for (; *s; s++) {
        if (*s == ']' && s[1] == 0) return 1;
        if (*s != '.' && !std::isdigit(static_cast<unsigned char>(*s))) return 0;
    }
    return 1;
}

int lib_str_hash(const char* s, int max) {
    uint32_t total = 0;
    // Each byte counts as signed, widened, and wrapped into 32 bits before the
    // shift: a byte above 127 subtracts.
    for (int lane = 0; *s; s++, lane = (lane + 1) & 3) {
        uint32_t b = static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*s)));
        total += b << (8 * lane);
    }
    if (max < 1) return 0;
    return static_cast<int>(total % static_cast<uint32_t>(max));
}

int lib_str_hash_old(const char* s, int max) {
    uint32_t total = 0;  // wraps like the signed total it stands for
    for (; *s; s++)
        total = total * 8u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*s)));
    if (max < 1) return 0;
    int32_t r = static_cast<int32_t>(total) % max;
    return r < 0 ? -r : r;
}

long long int64bit_atoi(const char* s) { return s ? std::strtoll(s, nullptr, 10) : 0; }

std::string i64_to_cstr(long long x) { return std::to_string(x); }

int nice_atoi(const char* s) {
    if (!s) return 0;
    int64_t n = static_cast<int32_t>(static_cast<uint32_t>(std::strtol(s, nullptr, 10)));
    int power = suffix_power(s);
    uint64_t v = static_cast<uint64_t>(n) << (10 * power);
    return static_cast<int32_t>(static_cast<uint32_t>(v));
}

double nice_atof(const char* s) {
    if (!s) return 0;
    double n = static_cast<int32_t>(static_cast<uint32_t>(std::strtol(s, nullptr, 10)));
    static constexpr double kFactor[] = {1, 1000, 1e6, 1e9};
    return n * kFactor[suffix_power(s)];
}

char* nice_num(int d, char* tmp) {
    if (d > 5000000)
        std::snprintf(tmp, 16, "%dk", d / 1000000);
    else if (d > 90000)
        std::snprintf(tmp, 16, "%dk", d / 1000);
    else
        std::snprintf(tmp, 16, "%d", d);
    return tmp;
}

std::string nice_num(int d) {
    char tmp[16];
    return nice_num(d, tmp);
}

char* comma_number(char* number, int bfsz) {
    char* digits = number;
    if (*digits == '-' || *digits == '+') digits++;
    size_t ndig = 0;
    while (std::isdigit(static_cast<unsigned char>(digits[ndig]))) ndig++;
    size_t commas = ndig > 0 ? (ndig - 1) / 3 : 0;
    size_t len = std::strlen(number);
    if (bfsz < 0 || len + commas + 1 > static_cast<size_t>(bfsz)) return nullptr;
    if (commas == 0) return number;
    // Move the tail (after the integer part, with its terminator) out first,
    // then lay the digits down from the right.
    size_t tail_at = static_cast<size_t>(digits - number) + ndig;
    std::memmove(number + tail_at + commas, number + tail_at, len - tail_at + 1);
    char* out = number + tail_at + commas;
    size_t placed = 0;
    for (size_t i = ndig; i > 0; i--) {
        if (placed > 0 && placed % 3 == 0) *--out = ',';
        *--out = digits[i - 1];
        placed++;
    }
    return number;
}

}  // namespace korv
