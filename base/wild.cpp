// Wild-card matching, address ranges, match lists and wildrep.
// Every routine reads only the caller's strings and is safe from any thread.
#include "base/wild.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace korv {

namespace {

const char* or_empty(const char* s) { return s ? s : ""; }

char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lower_cut(const char* s, size_t max) {
    std::string out(s, strnlen(s, max));
    for (char& c : out) c = ascii_lower(c);
    return out;
}

// Parts of `s` between runs of `sep`; runs count as one, so no part is empty.
std::vector<std::string> split_runs(std::string_view s, char sep) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && s[i] == sep) ++i;
        if (i >= s.size()) break;
        size_t j = s.find(sep, i);
        if (j == std::string_view::npos) j = s.size();
        out.emplace_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

// The walk shared by lib_match_list and lib_match_groups. Items are cut at
// every comma, so ",a" holds an empty first item, which ends the walk.
int match_items(const char* xwild, const char* xgrp2, bool groups, int* isat) {
    if (isat) *isat = 0;
    if (xwild == nullptr || *xwild == '\0') return 1;
    const std::string value = lower_cut(or_empty(xgrp2), kMatchListValueMax);
    int result = 0;
    const char* item = xwild;
    for (;;) {
        const char* comma = strchr(item, ',');
        const size_t len = comma ? static_cast<size_t>(comma - item) : strlen(item);
        if (len == 0) break;
        std::string w(item, len < kMatchListItemMax ? len : kMatchListItemMax);
        for (char& c : w) c = ascii_lower(c);
        int sense = 1;
        int at = 0;
        size_t off = 0;
        if (w[off] == '!') {
            sense = 0;
            ++off;
        }
        if (groups && off < w.size() && w[off] == '@') {
            sense = 0;
            at = 1;
            ++off;
        }
        const char* pat = w.c_str() + off;
        const int hit = groups ? match_wild(pat, value.c_str()) : match_wild_or_ip(pat, value.c_str());
        if (hit) {
            result = sense;
            if (isat) *isat = at;
        }
        if (comma == nullptr) break;
        item = comma + 1;
    }
    return result;
}

}  // namespace

int simple_domatch(const char* text, const char* p, int case_sensitive) {
    // Characters compare through `fold`: as they are, or in ASCII lower case.
    auto fold = [case_sensitive](char c) { return case_sensitive ? c : ascii_lower(c); };
    for (; *p; ++text, ++p) {
        if (*text == '\0' && *p != '*') return -1;
        switch (*p) {
            case '\\':
                // Quotes the next character; a trailing "\" stands for itself.
                if (p[1] != '\0') ++p;
                if (fold(*text) != fold(*p)) return 0;
                break;
            case '?':
                break;
            case '*': {
                while (p[1] == '*') ++p;
                ++p;
                if (*p == '\0') return 1;
                for (; *text; ++text) {
                    const int m = simple_domatch(text, p, case_sensitive);
                    if (m != 0) return m;
                }
                return -1;
            }
            case '[': {
                const auto c = static_cast<unsigned char>(fold(*text));
                const bool reverse = p[1] == '^';
                if (reverse) ++p;
                bool matched = false;
                // "]" or "-" right after the opening is a literal member.
                if (p[1] == ']' || p[1] == '-') {
                    ++p;
                    if (static_cast<unsigned char>(fold(*p)) == c) matched = true;
                }
                auto last = static_cast<unsigned char>(fold(*p));
                while (p[1] != '\0' && p[1] != ']') {
                    ++p;
                    auto cur = static_cast<unsigned char>(fold(*p));
                    if (cur == '-' && p[1] != ']' && p[1] != '\0') {
                        ++p;
                        cur = static_cast<unsigned char>(fold(*p));
                        if (c <= cur && c >= last) matched = true;
                    } else if (cur == c) {
                        matched = true;
                    }
                    last = cur;
                }
                // Stand on the closing "]"; an unclosed class ends with the pattern.
                if (p[1] == ']') ++p;
                if (matched == reverse) return 0;
                break;
            }
            default:
                if (fold(*text) != fold(*p)) return 0;
                break;
        }
    }
    return *text == '\0' ? 1 : 0;
}

int domatch(const char* text, const char* p) { return simple_domatch(text, p, 1); }

int simple_match_wild(const char* wild, const char* text) {
    wild = or_empty(wild);
    if (strcmp(wild, "*") == 0) return 1;
    return simple_domatch(or_empty(text), wild, 0) == 1 ? 1 : 0;
}

int match_wild(const char* wild, const char* text) {
    wild = or_empty(wild);
    if (strcmp(wild, "*") == 0) return 1;
    return domatch(or_empty(text), wild) == 1 ? 1 : 0;
}

int match_wild_ipnum(const char* xiprange, const char* xipnum) {
    const std::vector<std::string> range = split_runs(or_empty(xiprange), '.');
    const std::vector<std::string> num = split_runs(or_empty(xipnum), '.');
    if (range.size() != 4 || num.size() != 4) return 0;
    for (size_t i = 0; i < 4; ++i) {
        const std::string& r = range[i];
        const size_t dash = r.find('-');
        if (dash != std::string::npos) {
            const int lo = atoi(r.c_str());
            const int hi = atoi(r.c_str() + dash + 1);
            const int v = atoi(num[i].c_str());
            if (v < lo || v > hi) return 0;
        } else if (!match_wild(r.c_str(), num[i].c_str())) {
            return 0;
        }
    }
    return 1;
}

int match_wild_or_ip(const char* wild, const char* text) {
    wild = or_empty(wild);
    if (*wild >= '0' && *wild <= '9' && strchr(wild, '-') != nullptr) {
        if (match_wild_ipnum(wild, text)) return 1;
    }
    return match_wild(wild, text);
}

int lib_match_list(const char* xwild, const char* xgrp2) {
    return match_items(xwild, xgrp2, false, nullptr);
}

int lib_match_groups(const char* xwild, const char* xgrp2, int* isat) {
    return match_items(xwild, xgrp2, true, isat);
}

int wildrep(const char* in, const char* wild, const char* tpl, std::string& result) {
    result.clear();
    in = or_empty(in);
    const std::string lin = lower_cut(in, strlen(in));
    const std::string lw = lower_cut(or_empty(wild), strlen(or_empty(wild)));
    std::vector<std::string> words = split_runs(lw, '*');
    if (words.size() > static_cast<size_t>(kWildrepWordsMax)) words.resize(kWildrepWordsMax);
    const bool lead = !lw.empty() && lw.front() == '*';
    const bool tail = !lw.empty() && lw.back() == '*';

    // The text each "*" stood for, taken from the original (same offsets).
    std::vector<std::string_view> matches;
    const std::string_view orig(in);
    size_t pos = 0;
    for (size_t i = 0; i < words.size(); ++i) {
        const size_t at = lin.find(words[i], pos);
        if (at == std::string::npos) return 0;
        if (i == 0 && !lead) {
            if (at != 0) return 0;
        } else {
            matches.push_back(orig.substr(pos, at - pos));
        }
        pos = at + words[i].size();
    }
    if (tail) matches.push_back(orig.substr(pos));

    for (const char* t = or_empty(tpl); *t && result.size() < kWildrepResultMax; ++t) {
        if (t[0] == '%' && t[1] >= '1' && t[1] <= '9') {
            const size_t n = static_cast<size_t>(t[1] - '1');
            if (n < matches.size()) result.append(matches[n]);
            ++t;
        } else {
            result.push_back(*t);
        }
    }
    if (result.size() > kWildrepResultMax) result.resize(kWildrepResultMax);
    return 1;
}

}  // namespace korv
