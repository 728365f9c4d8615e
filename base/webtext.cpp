// Escaping of form values and display text for the admin pages, and the
// one-line stored form of multi-line texts.
#include "base/webtext.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace korv {

namespace {

// The form-value escape of one byte, or null when it stands for itself.
const char* url_escape(char c) {
    switch (c) {
        case '<': return "&lt;";
        case '>': return "&gt;";
        case '&': return "&amp;";
        case '"': return "&#34;";
        case '+': return "&#2b;";
        case ' ': return "+";
        default: return nullptr;
    }
}

const char* html_escape(char c) {
    switch (c) {
        case '<': return "&lt;";
        case '>': return "&gt;";
        case '&': return "&amp;";
        case '"': return "&quot;";
        default: return nullptr;
    }
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Decodes the escape at `s` (which begins with '&' or '+'): stores the byte
// in *out and returns how many input bytes it spans, or 0 when `s` begins
// nothing known.
size_t decode_one(const char* s, char* out) {
    if (*s == '+') {
        *out = ' ';
        return 1;
    }
    static const struct {
        const char* text;
        char byte;
    } kNamed[] = {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}};
    for (const auto& e : kNamed) {
        size_t n = std::strlen(e.text);
        if (std::strncmp(s, e.text, n) == 0) {
            *out = e.byte;
            return n;
        }
    }
    if (s[0] == '&' && s[1] == '#') {
        size_t i = 2;
        int v = 0;
        for (int d; (d = hex_value(s[i])) >= 0; i++) v = (v * 16 + d) & 0xff;
        if (i == 2 || v == 0) return 0;
        if (s[i] == ';') i++;
        *out = static_cast<char>(v);
        return i;
    }
    return 0;
}

}  // namespace

const char* lib_url_encode(char* bf, const char* s) {
    if (!s) {
        bf[0] = 0;
        return bf;
    }
    if (std::strlen(s) >= static_cast<size_t>(kUrlEncodeLimit)) return s;
    char* w = bf;
    for (; *s; s++) {
        if (const char* e = url_escape(*s)) {
            size_t n = std::strlen(e);
            std::memcpy(w, e, n);
            w += n;
        } else {
            *w++ = *s;
        }
    }
    *w = 0;
    return bf;
}

std::string lib_url_encode(std::string_view s) {
    if (s.size() >= static_cast<size_t>(kUrlEncodeLimit)) return std::string(s);
    std::string out;
    for (char c : s) {
        if (const char* e = url_escape(c))
            out += e;
        else
            out += c;
    }
    return out;
}

char* lib_url_decode(char* bf, const char* s) {
    int n = 0;
    while (*s && n < kUrlDecodeMax) {
        size_t used = (*s == '&' || *s == '+') ? decode_one(s, &bf[n]) : 0;
        if (used == 0) {
            bf[n] = *s;
            used = 1;
        }
        s += used;
        n++;
    }
    bf[n] = 0;
    return bf;
}

std::string lib_url_decode(std::string_view s) {
    // The escapes are read over a terminated copy, as in the buffer form.
    std::string in(s);
    std::string out;
    const char* q = in.c_str();
    while (*q) {
        char c;
        size_t used = (*q == '&' || *q == '+') ? decode_one(q, &c) : 0;
        if (used == 0) {
            c = *q;
            used = 1;
        }
        out += c;
        q += used;
    }
    return out;
}

char* lib_web_encode(char* bf, const char* s) {
    size_t n = 0;
    const size_t room = static_cast<size_t>(kUrlDecodeMax - 1);
    for (; s && *s; s++) {
        const char* e = html_escape(*s);
        size_t len = e ? std::strlen(e) : 1;
        if (n + len > room) break;
        if (e)
            std::memcpy(bf + n, e, len);
        else
            bf[n] = *s;
        n += len;
    }
    bf[n] = 0;
    return bf;
}

std::string lib_web_encode(std::string_view s) {
    std::string out;
    for (char c : s) {
        if (const char* e = html_escape(c))
            out += e;
        else
            out += c;
    }
    return out;
}

std::string lib_cr_encode(std::string_view s) {
    std::string out;
    for (char c : s) {
        if (c == '\r') continue;
        const char* e = c == '\n' ? "\\n" : c == '\\' ? "\\\\" : nullptr;
        size_t len = e ? 2 : 1;
        if (out.size() + len > static_cast<size_t>(kCrEncodeMax)) break;
        if (e)
            out += e;
        else
            out += c;
    }
    return out;
}

std::string lib_cr_decode(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == '\\' && i + 1 < s.size() && (s[i + 1] == 'n' || s[i + 1] == '\\')) {
            out += s[i + 1] == 'n' ? '\n' : '\\';
            i++;
        } else {
            out += s[i];
        }
    }
    return out;
}

char* lib_cr_decode(char* out, const char* in, int len) {
    if (len < 0) return out;
    std::string text = lib_cr_decode(std::string_view(in));
    size_t n = std::min(text.size(), static_cast<size_t>(len));
    std::memcpy(out, text.data(), n);
    out[n] = 0;
    return out;
}

}  // namespace korv
