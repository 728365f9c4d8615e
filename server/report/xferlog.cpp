// The transfer-log reader of the emailed reports: field splitting with the
// padded day of the stamp closed up, the date and time checks, the report's
// filters, and the file walk with a cap on how many bad lines are logged one
// by one (a log full of garbage must not flood the error log).
#include "server/report/xferlog.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/tokens.h"
#include "base/wild.h"
#include "common/emsg.h"

namespace korv {

namespace {

constexpr int kSplitMax = 30;
constexpr long kBadLinesLogged = 20;  // per file; the rest are counted

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};

const char* nz(const char* s) { return s != nullptr ? s : ""; }

bool all_digits(const char* s) {
    if (*s == 0) return false;
    for (; *s; ++s)
        if (!isdigit(static_cast<unsigned char>(*s))) return false;
    return true;
}

int month_index(const char* s) {
    for (int i = 0; i < 12; ++i)
        if (strcmp(s, months[i]) == 0) return i;
    return -1;
}

// 1 kept, 0 dropped by a filter, -1 a bad line with `why` set.
int parse_line(const char* line, const XferFilter& f, EreportDataUnit& out, std::string& why) {
    char copy[kXferLineMax + 1];
    size_t len = 0;
    for (const char* s = line; *s && len < sizeof copy - 1; ++s)
        if (*s != '\r' && *s != '\n') copy[len++] = *s;
    copy[len] = 0;
    char* p[kSplitMax + 1] = {};
    int n = quoted_token_split2_rm_quot(copy, p, " ", kSplitMax);
    if (n < kXferTokensMin) return 0;
    // "Nov  9": the day's padding blank leaves an empty field.
    if (n > 2 && *p[2] == 0) {
        for (int i = 2; i < n; ++i) p[i] = p[i + 1];
        --n;
    }
    if (n != kXferTokens) {
        why = strfmt("e-reporting: got erroneous line from xfer file !18! {[4]year=%s} {[10]_=%s} {[15]0=%s} [%d](%.500s)",
                     nz(p[4]), nz(p[10]), nz(p[15]), n, line);
        return -1;
    }
    for (int i = 0; i < kXferTokens; ++i) {
        if (p[i] == nullptr) {
            why = strfmt("e-reporting: got erroneous line from xfer file elem(%d) {[4]year=%s} {[10]_=%s} {[15]0=%s} "
                         "p[%d](%.500s)",
                         i, nz(p[4]), nz(p[10]), nz(p[15]), n, line);
            return -1;
        }
    }
    const char dir = *p[11];
    if (f.ul != f.dl) {
        if (f.ul && dir != 'i' && dir != 'I') return 0;
        if (f.dl && dir != 'o' && dir != 'O') return 0;
    }
    // The stamp: weekday month day hh:mm:ss year.
    char* s1 = strchr(p[3], ':');
    if (s1 == nullptr) {
        why = "e-reporting: done chk time s1 == NULL ???";
        return -1;
    }
    char* s2 = strchr(s1 + 1, ':');
    if (s2 == nullptr) {
        why = "e-reporting: done chk time s2 == NULL ???";
        return -1;
    }
    int hour = atoi(p[3]), minute = atoi(s1 + 1), second = atoi(s2 + 1);
    if (hour < 0 || hour > 23) {
        why = "e-reporting: Time Assumption failure 1!";
        return -1;
    }
    if (minute < 0 || minute > 59) {
        why = "e-reporting: Time Assumption failure 2!";
        return -1;
    }
    if (second < 0 || second > 61) {
        why = "e-reporting: Time Assumption failure 3!";
        return -1;
    }
    int mon = month_index(p[1]), day = atoi(p[2]), year = atoi(p[4]);
    if (mon < 0 || day < 1 || day > 31 || year < 1970 || year > 9999 || !all_digits(p[7]) || !all_digits(p[5]) ||
        strlen(p[7]) > 18 || strlen(p[5]) > 9) {
        why = strfmt("e-reporting: got bad line from xfer file (%.500s)", line);
        return -1;
    }
    tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = mon;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    time_t when = mktime(&t);
    if (when < f.sec_from || when > f.sec_to) return 0;
    if (!simple_match_wild_comma_list(f.filter.c_str(), p[8])) return 0;
    out.when = when;
    out.secs = atoi(p[5]);
    out.ip = p[6];
    out.filesize = p[7];
    out.size = atoll(p[7]);
    out.filename = p[8];
    out.mode = *p[9];
    out.uldl = (dir == 'i' || dir == 'I') ? 1 : 0;
    out.user = p[13];
    out.transfer_complete = (*p[17] == 'c' || *p[17] == 'C') ? 1 : 0;
    return 1;
}

}  // namespace

int simple_match_wild_comma_list(const char* list, const char* name) {
    std::string all = list != nullptr ? list : "";
    bool any = false;
    size_t start = 0;
    while (start <= all.size()) {
        size_t comma = all.find(',', start);
        if (comma == std::string::npos) comma = all.size();
        std::string one = all.substr(start, comma - start);
        while (!one.empty() && one.front() == ' ') one.erase(0, 1);
        while (!one.empty() && one.back() == ' ') one.pop_back();
        if (!one.empty()) {
            any = true;
            if (simple_match_wild(one.c_str(), name)) return 1;
        }
        start = comma + 1;
    }
    return any ? 0 : 1;
}

int ereport_add_line(const char* line, const XferFilter& f, EreportDataUnit& out) {
    std::string why;
    int r = parse_line(line, f, out, why);
    if (r < 0) emsg("%s", why.c_str());
    return r > 0 ? 1 : 0;
}

long ereport_process(const char* path, const XferFilter& f, const XferSink& sink) {
    std::unique_ptr<FILE, FileCloser> fp(fopen(path, "r"));
    if (!fp) {
        dmsg("e-reporting: no transfer log (%.500s)", path);
        return -1;
    }
    char bf[kXferLineMax + 2];
    long kept = 0, bad = 0;
    EreportDataUnit unit;
    std::string why;
    while (fgets(bf, sizeof bf, fp.get()) != nullptr) {
        size_t len = strlen(bf);
        if (len > 0 && bf[len - 1] != '\n' && !feof(fp.get())) {
            // A line past the bound: the rest of it is skipped, the cut part read as one line.
            int ch;
            while ((ch = fgetc(fp.get())) != EOF && ch != '\n') {
            }
        }
        int r = parse_line(bf, f, unit, why);
        if (r > 0) {
            ++kept;
            sink(unit);
        } else if (r < 0 && ++bad <= kBadLinesLogged) {
            emsg("%s", why.c_str());
        }
    }
    if (bad > kBadLinesLogged)
        emsg("e-reporting: %ld more erroneous lines in (%.500s) were skipped", bad - kBadLinesLogged, path);
    return kept;
}

}  // namespace korv
