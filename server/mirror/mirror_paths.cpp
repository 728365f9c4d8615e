// The mirror's text tools: the lines of mirrors.dat, listing dates into
// times, path trimming, and the checks that keep a job inside its directory.
#include <strings.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/fmt.h"
#include "client/ftplib.h"
#include "server/mirror/mirror.h"

namespace korv {

namespace {

const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};

const char* tf(int v) { return v ? "TRUE" : "FALSE"; }
bool is_true(const std::string& s) { return strcasecmp(s.c_str(), "TRUE") == 0; }

int month_of(const char* s) {
    if (strlen(s) < 3) return -1;
    for (int i = 0; i < 12; ++i)
        if (strncasecmp(s, kMonths[i], 3) == 0) return i;
    return -1;
}

// One pass of the parse into `tm`. False when the text is no date.
bool parse_once(const char* date, struct tm& tm, int now_year) {
    const size_t n = strlen(date);
    int mon = month_of(date);
    if (mon >= 0) {
        // "Jan  5 2010" or "Jan  5 13:45"
        tm.tm_sec = 0;
        tm.tm_mon = mon;
        const char* p = n > 4 ? date + 4 : date + n;
        tm.tm_mday = atoi(p);
        if (tm.tm_mday == 0 && *p) tm.tm_mday = atoi(++p);
        while (*p == ' ') ++p;
        while (isdigit(static_cast<unsigned char>(*p))) ++p;
        while (*p == ' ') ++p;
        int v = atoi(p);
        if (v > 100) {
            tm.tm_hour = 0;
            tm.tm_min = 0;
            tm.tm_year = v - 1900;
        } else {
            tm.tm_hour = v;
            while (isdigit(static_cast<unsigned char>(*p)) || *p == ':') ++p;
            // The minute follows the colon.
            const char* colon = strchr(date + 4 < date + n ? date + 4 : date + n, ':');
            tm.tm_min = colon != nullptr ? atoi(colon + 1) : 0;
            tm.tm_year = now_year;
        }
        return tm.tm_mday > 0;
    }
    // "04-21-07 11:30AM"
    if (n < 8 || !isdigit(static_cast<unsigned char>(date[0]))) return false;
    tm.tm_mon = atoi(date) - 1;
    tm.tm_mday = atoi(date + 3);
    int y = atoi(date + 6);
    if (y > 1900)
        y -= 1900;
    else if (y < 70)
        y += 100;  // two-digit years: 00 to 69 are this century
    tm.tm_year = y;
    const char* p = date + 6;
    while (isdigit(static_cast<unsigned char>(*p))) ++p;
    while (*p == ' ') ++p;
    tm.tm_hour = atoi(p);
    const size_t rest = strlen(p);
    tm.tm_min = rest > 3 ? atoi(p + 3) : 0;
    if (rest > 5 && strncasecmp(p + 5, "pm", 2) == 0 && tm.tm_hour < 12) tm.tm_hour += 12;
    if (rest > 5 && strncasecmp(p + 5, "am", 2) == 0 && tm.tm_hour == 12) tm.tm_hour = 0;
    tm.tm_sec = 0;
    return tm.tm_mon >= 0 && tm.tm_mon < 12 && tm.tm_mday > 0;
}

}  // namespace

void remove_path(std::string& pathnamefile, std::string_view path) {
    std::string_view f = pathnamefile;
    if (!f.empty() && (f[0] == '/' || f[0] == '\\')) f.remove_prefix(1);
    if (!path.empty() && (path[0] == '/' || path[0] == '\\')) path.remove_prefix(1);
    if (f.substr(0, path.size()) == path) {
        f.remove_prefix(path.size());
        if (!f.empty() && (f[0] == '/' || f[0] == '\\')) f.remove_prefix(1);
    }
    pathnamefile = std::string(f);
}

time_t date_to_time(const char* date) {
    if (date == nullptr || *date == 0) return 0;
    time_t now = time(nullptr);
    struct tm nowtm{};
    localtime_r(&now, &nowtm);
    // Twice over one tm: the second mktime sees the daylight flag of the first.
    struct tm tm{};
    if (!parse_once(date, tm, nowtm.tm_year)) return 0;
    time_t t = mktime(&tm);
    parse_once(date, tm, nowtm.tm_year);
    t = mktime(&tm);
    // A time without a year is within the last year: one that would lie in
    // the future is last year's.
    if (month_of(date) >= 0 && strchr(date, ':') != nullptr && t > now + 86400) {
        parse_once(date, tm, nowtm.tm_year - 1);
        mktime(&tm);
        parse_once(date, tm, nowtm.tm_year - 1);
        t = mktime(&tm);
    }
    return t;
}

std::string mirror_fixslash(std::string_view path) {
    std::string out;
    out.reserve(path.size());
    for (char c : path) {
        if (c == '\\') c = '/';
        if (c == '/' && !out.empty() && out.back() == '/') continue;
        out += c;
    }
    return out;
}

int mirror_name_ok(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.size() > static_cast<size_t>(kMirrorNameMax)) return 0;
    return name.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos ? 1 : 0;
}

int mirror_inside(const std::string& base, const std::string& path) {
    std::string b = mirror_fixslash(base);
    while (b.size() > 1 && b.back() == '/') b.pop_back();
    std::string p = mirror_fixslash(path);
    if (b.empty() || p.size() <= b.size() || p.compare(0, b.size(), b) != 0) return 0;
    if (b != "/" && p[b.size()] != '/') return 0;
    // Each part below the base: no "." or "..", and no symbolic link on the way.
    std::string at = b;
    size_t pos = b == "/" ? 1 : b.size() + 1;
    while (pos <= p.size()) {
        size_t end = p.find('/', pos);
        if (end == std::string::npos) end = p.size();
        std::string part = p.substr(pos, end - pos);
        if (part == "." || part == "..") return 0;
        if (!part.empty()) {
            at += (at == "/" ? "" : "/") + part;
            struct stat st{};
            // The last part may be a file of any kind; the rename replaces it.
            if (end < p.size() && lstat(at.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) return 0;
        }
        pos = end + 1;
    }
    return 1;
}

int mirror_decode(const char* line, std::string& fname, std::string& xdate, long long* sz, int* isdir,
                  int* islink) {
    if (!ftp_decode_full(line, fname, xdate, sz, isdir, islink)) return 0;
    // Devices, pipes and sockets are nothing to copy.
    return line[0] == 'c' || line[0] == 'b' || line[0] == 'p' || line[0] == 's' ? 0 : 1;
}

int mirror_parse_line(std::string_view line, MIRROR& out) {
    if (line.size() > static_cast<size_t>(kMirrorLineMax)) line = line.substr(0, kMirrorLineMax);
    if (size_t cut = line.find_first_of("\r\n"); cut != std::string_view::npos) line = line.substr(0, cut);
    std::vector<std::string> f;
    size_t pos = 0;
    while (f.size() < static_cast<size_t>(kMirrorFieldsMax)) {
        size_t bar = line.find('|', pos);
        f.emplace_back(line.substr(pos, bar == std::string_view::npos ? std::string_view::npos : bar - pos));
        if (bar == std::string_view::npos) break;
        pos = bar + 1;
    }
    if (f.size() < static_cast<size_t>(kMirrorFieldsMin)) return 0;
    while (f.size() < 12) f.emplace_back();
    out = MIRROR{};
    out.id = atoi(f[0].c_str());
    out.remote_host = f[1];
    out.remote_path = f[2];
    out.files = f[3];
    out.lcl = f[4];
    out.subdir = is_true(f[5]);
    out.trim = is_true(f[6]);
    out.xdelay = atoi(f[7].c_str());
    out.user = f[8];
    out.pass = f[9];
    out.use_full_path = strcasecmp(f[10].c_str(), "false") == 0 ? 0 : 1;
    out.mirror_ssl = is_true(f[11]);
    out.tlast = 0;
    out.last_error = "Queued...";
    return 1;
}

std::string mirror_format_line(const MIRROR& m) {
    return strfmt("%d|%.500s|%.500s|%.500s|%.500s|%.500s|%.500s|%d|%.500s|%.500s|%.500s|%s\n", m.id,
                  m.remote_host.c_str(), m.remote_path.c_str(), m.files.c_str(), m.lcl.c_str(), tf(m.subdir),
                  tf(m.trim), m.xdelay, m.user.c_str(), m.pass.c_str(), tf(m.use_full_path), tf(m.mirror_ssl));
}

}  // namespace korv
