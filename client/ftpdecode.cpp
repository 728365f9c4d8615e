// Parsing of LIST lines (Unix and DOS forms) and the client's small text
// tools: PORT arguments, path splits and line-end conversions.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/fmt.h"
#include "client/ftplib.h"

namespace korv {

namespace {

constexpr size_t kUnixLineMin = 47;  // shorter lines ("total 12") are no entries
constexpr size_t kDosDateMax = 30;

struct Tok {
    std::string_view text;
    size_t end;  // offset just past the token
};

// The next blank-separated token from `pos`; empty at the end of the line.
Tok next_token(std::string_view s, size_t pos) {
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t')) ++pos;
    size_t start = pos;
    while (pos < s.size() && s[pos] != ' ' && s[pos] != '\t') ++pos;
    return {s.substr(start, pos - start), pos};
}

bool all_digits(std::string_view t) {
    if (t.empty() || t.size() > 18) return false;
    for (char c : t)
        if (!isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

std::string_view skip_blanks(std::string_view s, size_t pos) {
    while (pos < s.size() && (s[pos] == ' ' || s[pos] == '\t')) ++pos;
    return s.substr(pos);
}

}  // namespace

// The whole name, uncut: the mirror decides itself what is too long.
int ftp_decode_full(const char* bf, std::string& fname, std::string& xdate, long long* sz, int* isdir, int* islink) {
    *isdir = 0;
    *islink = 0;
    *sz = 0;
    if (bf == nullptr) return 0;
    std::string_view s(bf);
    if (size_t cut = s.find_first_of("\r\n"); cut != std::string_view::npos) s = s.substr(0, cut);
    if (s.empty()) return 0;
    if (s[0] == 'd') *isdir = 1;
    if (s[0] == 'l') *islink = 1;
    if (s[0] == 'L') *isdir = *islink = 1;

    Tok t1 = next_token(s, 0);
    if (t1.text.size() == 8) {
        // 04-21-07  11:30AM       <DIR>          pub
        Tok t2 = next_token(s, t1.end);
        Tok t3 = next_token(s, t2.end);
        if (t2.text.empty() || t3.text.empty()) return 0;
        xdate = std::string(t1.text) + " " + std::string(t2.text);
        if (xdate.size() > kDosDateMax) xdate.resize(kDosDateMax);
        if (t3.text == "<DIR>") {
            *isdir = 1;
        } else {
            if (!all_digits(t3.text)) return 0;
            *sz = std::strtoll(std::string(t3.text).c_str(), nullptr, 10);
        }
        std::string_view name = skip_blanks(s, t3.end);
        if (name.empty()) return 0;
        fname = std::string(name);
        return 1;
    }

    if (s.size() < kUnixLineMin) return 0;
    // mode links owner group size month day year-or-time name
    Tok mode = t1;
    Tok links = next_token(s, mode.end);
    Tok owner = next_token(s, links.end);
    Tok group = next_token(s, owner.end);
    Tok size = next_token(s, group.end);
    if (size.text.empty()) return 0;
    if (size.text.back() == ',') {
        // A device: "major, minor" stands where the size would.
        size = next_token(s, size.end);
        if (!all_digits(size.text)) return 0;
        *sz = 0;
    } else {
        if (!all_digits(size.text)) return 0;
        *sz = std::strtoll(std::string(size.text).c_str(), nullptr, 10);
    }
    Tok month = next_token(s, size.end);
    Tok day = next_token(s, month.end);
    Tok yt = next_token(s, day.end);
    if (yt.text.empty()) return 0;
    // One blank separates the date from the name; further blanks belong to it.
    size_t at = yt.end;
    if (at < s.size() && (s[at] == ' ' || s[at] == '\t')) ++at;
    std::string_view name = s.substr(at < s.size() ? at : s.size());
    if (name.empty()) return 0;
    xdate = strfmt("%.*s %.*s %.*s", static_cast<int>(month.text.size()), month.text.data(),
                   static_cast<int>(day.text.size()), day.text.data(), static_cast<int>(yt.text.size()),
                   yt.text.data());
    fname = std::string(name);
    return 1;
}

int ftp_decode(const char* bf, std::string& fname, std::string& xdate, long long* sz, int* isdir, int* islink) {
    if (!ftp_decode_full(bf, fname, xdate, sz, isdir, islink)) return 0;
    if (fname.size() > static_cast<size_t>(kFtpNameMax)) fname.resize(kFtpNameMax);
    return 1;
}

void ftp_lib_path_split(const char* in, std::string& path, std::string& fname) {
    std::string s = in != nullptr ? in : "";
    size_t slash = s.find_last_of("/\\");
    if (slash == std::string::npos) {
        path.clear();
        fname = s;
    } else {
        path = s.substr(0, slash);
        fname = s.substr(slash + 1);
    }
}

std::string ftp_cvt_crlf_lf(std::string_view in) {
    std::string out;
    out.reserve(in.size());
    for (char c : in)
        if (c != '\r') out += c;
    return out;
}

std::string ftp_cvt_lf_crlf(std::string_view in) {
    std::string out;
    out.reserve(in.size() + in.size() / 16);
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] == '\n' && (i == 0 || in[i - 1] != '\r')) out += '\r';
        out += in[i];
    }
    return out;
}

}  // namespace korv
