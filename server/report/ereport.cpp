// The emailed reports: the stored definitions, their file, the thread, when
// a report is due, and one run. A run works on a copy of its definition, so
// that the REPORT lock is never held while a relay is slow: the list stays
// usable from the page during a send.
#include "server/report/ereport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <mutex>
#include <thread>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "server/report/smtp.h"
#include "server/session/runstate.h"
#include "server/session/threadlist.h"
#include "server/settings/ini.h"

namespace korv {

const StructureProperties email_report[] = {
    {1, kElemString, 0, "email", "email: %s, "},
    {1, kElemString, 1, "frequency", "every %s <BR>"},
    {1, kElemString, 2, "domain", "from Domain \"%s\", "},
    {1, kElemString, 3, "filter", "filenames filtered with \"%s\"<BR>"},
    {1, kElemInt, 0, "when_hr", ""},
    {1, kElemInt, 1, "when_min", ""},
    {1, kElemBool, 0, "ul", "Uploads "},
    {1, kElemBool, 1, "dl", "Downloads "},
    {1, kElemBool, 2, "top10", "Popular10 "},
    {1, kElemBool, 3, "full_list", "Full List "},
    {1, kElemBool, 4, "problems", "Problems "},
    {1, kElemBool, 5, "size", "Transfer Size "},
    {1, kElemBool, 6, "single", "Size of File "},
    {1, kElemTime, 0, "last_report_at", ""},
    {0, 0, 0, nullptr, nullptr},
};

namespace {

using ReportPtr = std::shared_ptr<EmailReportGenerator>;
std::vector<ReportPtr> r_list;  // under MUTEX_REPORT

std::mutex dir_mx;
std::string g_dir = ".";

constexpr size_t kEreportLineMax = 16384;
constexpr size_t kAddressMax = 254;
constexpr size_t kThreadStack = 1024 * 1024;

const StructureProperties* find_row(const char* name, int type) {
    for (const StructureProperties* p = email_report; p->more; ++p)
        if (p->element_type == type && strcmp(p->ini_setting, name) == 0) return p;
    return nullptr;
}

const StructureProperties* find_row(const char* name) {
    for (const StructureProperties* p = email_report; p->more; ++p)
        if (strcmp(p->ini_setting, name) == 0) return p;
    return nullptr;
}

bool value_safe(const std::string& v) {
    return v.find_first_of(std::string("\"\r\n\0", 4)) == std::string::npos;
}

std::string domain_dir_name(const EmailReportGenerator* itm) {
    std::string d = get_charptr(itm, "domain");
    return d.empty() ? std::string("default") : d;
}

// Cuts at `="`, then at the next `"`, and skips one blank: key and value pairs.
int load_quoted_token_pairs(const char* line, std::vector<std::pair<std::string, std::string>>& out, int max) {
    const char* p = line;
    while (static_cast<int>(out.size()) < max) {
        const char* eq = strstr(p, "=\"");
        if (eq == nullptr) break;
        const char* q = strchr(eq + 2, '"');
        if (q == nullptr) break;
        std::string key(p, static_cast<size_t>(eq - p));
        while (!key.empty() && (key.front() == ' ' || key.front() == '\t')) key.erase(0, 1);
        out.emplace_back(key, std::string(eq + 2, static_cast<size_t>(q - eq - 2)));
        p = q + 1;
        if (*p == ' ') ++p;
    }
    return static_cast<int>(out.size());
}

bool address_ok(const std::string& a) {
    if (a.empty() || a.size() > kAddressMax) return false;
    size_t at = a.find('@');
    if (at == std::string::npos || at == 0 || at + 1 == a.size() || a.find('@', at + 1) != std::string::npos)
        return false;
    for (unsigned char ch : a)
        if (ch <= 32 || ch == 127 || strchr("<>\"(),;:\\[]", ch) != nullptr) return false;
    return true;
}

struct MailJob {
    const EmailReportGenerator* itm;
    std::string to;
};

int write_list_locked() {
    const std::string tmp = ereport_path(kEreportNewFile), dat = ereport_path(kEreportFile);
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    FILE* f = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (f == nullptr) {
        if (fd >= 0) ::close(fd);
        emsg("e-reporting: error saving email report settings: (%s)", strerror(errno));
        return 0;
    }
    fchmod(fd, 0600);  // an older file of that name may have been wider
    bool ok = true;
    for (const ReportPtr& r : r_list) {
        std::string line;
        for (const StructureProperties* p = email_report; p->more; ++p) {
            switch (p->element_type) {
                case kElemString: strfmt_append(line, "%s=\"%s\" ", p->ini_setting, r->charptrs[p->index].c_str()); break;
                case kElemBool: strfmt_append(line, "%s=\"%s\" ", p->ini_setting, r->bools[p->index] ? "true" : "false"); break;
                case kElemInt: strfmt_append(line, "%s=\"%d\" ", p->ini_setting, r->ints[p->index]); break;
                case kElemTime:
                    strfmt_append(line, "%s=\"%lld\" ", p->ini_setting, static_cast<long long>(r->time_ts[p->index]));
                    break;
            }
        }
        line += '\n';
        if (fwrite(line.data(), 1, line.size(), f) != line.size()) ok = false;
    }
    if (!ok) emsg("e-reporting: error saving email report settings: (%s)", strerror(errno));
    if (fclose(f) != 0) {
        emsg("e-reporting: error closing email report settings: (%s)", strerror(errno));
        ok = false;
    }
    if (!ok) {
        ::unlink(tmp.c_str());
        return 0;
    }
    if (remove(dat.c_str()) != 0 && errno != ENOENT)
        emsg("e-reporting: error removing email report settings: (%s)", strerror(errno));
    if (rename(tmp.c_str(), dat.c_str()) != 0) {
        emsg("e-reporting: error renaming email report settings: (%s)", strerror(errno));
        return 0;
    }
    return 1;
}

int report_thread(void*) {
    imsg("e-reporting: thread started\n");
    while (exit_due_to_shutdown_now.load() == 0) {
        check_for_reports_to_run(time(nullptr));
        // Naps of 100 ms until the clock's second changes, so that no
        // second (and no report due in it) is ever skipped.
        const time_t was = time(nullptr);
        for (int i = 0; i < 20 && exit_due_to_shutdown_now.load() == 0 && time(nullptr) == was; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    imsg("e-reporting: thread exiting\n");
    return 1;
}

std::atomic<EreportFlushFn> g_flush{nullptr};

}  // namespace

void ereport_set_log_flush(EreportFlushFn fn) { g_flush.store(fn); }

int ereport_log_flush() {
    EreportFlushFn fn = g_flush.load();
    return fn != nullptr ? fn() : 1;
}

// ---------------------------------------------------------------- fields

const char* get_charptr(const EmailReportGenerator* r, const char* name) {
    const StructureProperties* p = find_row(name, kElemString);
    return p != nullptr ? r->charptrs[p->index].c_str() : "";
}

int get_int(const EmailReportGenerator* r, const char* name) {
    const StructureProperties* p = find_row(name, kElemInt);
    return p != nullptr ? r->ints[p->index] : 0;
}

int get_bool(const EmailReportGenerator* r, const char* name) {
    const StructureProperties* p = find_row(name, kElemBool);
    return p != nullptr ? r->bools[p->index] : 0;
}

time_t get_time_t(const EmailReportGenerator* r, const char* name) {
    const StructureProperties* p = find_row(name, kElemTime);
    return p != nullptr ? r->time_ts[p->index] : 0;
}

void set_time_t(EmailReportGenerator* r, const char* name, time_t t) {
    if (const StructureProperties* p = find_row(name, kElemTime)) r->time_ts[p->index] = t;
    if (strcmp(name, "last_report_at") == 0) r->last_report_at = t;
}

int ereport_set_field(EmailReportGenerator* r, const char* name, const char* value) {
    const StructureProperties* p = find_row(name);
    if (p == nullptr) return 0;
    switch (p->element_type) {
        case kElemString: r->charptrs[p->index] = value; break;
        case kElemBool: r->bools[p->index] = istrue(value); break;
        case kElemInt: r->ints[p->index] = atoi(value); break;
        case kElemTime: set_time_t(r, name, static_cast<time_t>(atoll(value))); break;
    }
    return 1;
}

// ---------------------------------------------------------------- the file

void ereport_set_dir(const std::string& dir) {
    std::lock_guard<std::mutex> g(dir_mx);
    g_dir = dir.empty() ? std::string(".") : dir;
}

std::string ereport_path(const char* name) {
    std::lock_guard<std::mutex> g(dir_mx);
    return strfmt("%s/%s", g_dir.c_str(), name);
}

int read_email_report_settings(FILE* f) {
    MutexHold hold(MUTEX_REPORT);
    std::string line;
    char bf[4096];
    int n = 0;
    bool too_long = false;
    while (fgets(bf, sizeof bf, f) != nullptr) {
        line += bf;
        if (line.size() > kEreportLineMax) too_long = true;
        if (too_long) line.clear();
        if (line.empty() || line.back() != '\n') {
            if (!feof(f)) continue;
        }
        if (too_long) {
            emsg("e-reporting: a report definition longer than %zu bytes was skipped", kEreportLineMax);
            too_long = false;
            line.clear();
            continue;
        }
        std::vector<std::pair<std::string, std::string>> pairs;
        if (load_quoted_token_pairs(line.c_str(), pairs, kEreportPairsMax) < kEreportPairsMin) break;
        line.clear();
        auto r = std::make_shared<EmailReportGenerator>();
        for (const auto& [k, v] : pairs) ereport_set_field(r.get(), k.c_str(), v.c_str());
        r->last_report_at = get_time_t(r.get(), "last_report_at");
        r_list.push_back(std::move(r));
        ++n;
    }
    return n;
}

int load_ereport() {
    MutexHold hold(MUTEX_REPORT);
    r_list.clear();
    FILE* f = fopen(ereport_path(kEreportFile).c_str(), "r");
    if (f == nullptr) return 0;
    int n = read_email_report_settings(f);
    fclose(f);
    return n;
}

int write_email_report_list() {
    MutexHold hold(MUTEX_REPORT);
    return write_list_locked();
}

void ereport_free_all() {
    MutexHold hold(MUTEX_REPORT);
    r_list.clear();
}

int ereport_count() {
    MutexHold hold(MUTEX_REPORT);
    return static_cast<int>(r_list.size());
}

std::vector<EmailReportGenerator> ereport_snapshot() {
    MutexHold hold(MUTEX_REPORT);
    std::vector<EmailReportGenerator> v;
    for (const ReportPtr& r : r_list) {
        v.push_back(*r);
        v.back().data.clear();
    }
    return v;
}

bool ereport_recipients(const std::string& list, std::vector<std::string>& out, std::string& reason) {
    out.clear();
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        if (comma == std::string::npos) comma = list.size();
        std::string one = list.substr(start, comma - start);
        while (!one.empty() && one.front() == ' ') one.erase(0, 1);
        while (!one.empty() && one.back() == ' ') one.pop_back();
        start = comma + 1;
        if (one.empty()) continue;
        if (static_cast<int>(out.size()) >= kEreportRecipientsMax) {
            reason = strfmt("A report goes to at most %d addresses.", kEreportRecipientsMax);
            return false;
        }
        if (!address_ok(one)) {
            reason = strfmt("Not a mail address: \"%.100s\".", one.c_str());
            return false;
        }
        out.push_back(one);
    }
    if (out.empty()) {
        reason = "A report needs an address to send to.";
        return false;
    }
    return true;
}

int add_email_report_settings(const EreportInputFn& input, std::string& reason) {
    auto r = std::make_shared<EmailReportGenerator>();
    for (const StructureProperties* p = email_report; p->more; ++p) {
        if (p->element_type == kElemTime) continue;  // a new report has never run
        std::string v = input(p->ini_setting);
        if (!value_safe(v) || v.size() > kEreportValueMax) {
            reason = strfmt("The field %s holds a double quote, a line end or a NUL, or is too long; nothing was written.",
                            p->ini_setting);
            return 0;
        }
        ereport_set_field(r.get(), p->ini_setting, v.c_str());
    }
    std::vector<std::string> to;
    if (!ereport_recipients(get_charptr(r.get(), "email"), to, reason)) return 0;
    const std::string freq = get_charptr(r.get(), "frequency");
    if (strncasecmp(freq.c_str(), "day", 3) != 0 && strncasecmp(freq.c_str(), "week", 4) != 0) {
        reason = "The frequency is Day or Week/<weekday>.";
        return 0;
    }
    int hr = get_int(r.get(), "when_hr"), mn = get_int(r.get(), "when_min");
    if (hr < 0 || hr > 23 || mn < 0 || mn > 59) {
        reason = "The hour is 0 to 23 and the minute 0 to 59.";
        return 0;
    }
    set_time_t(r.get(), "last_report_at", 0);
    r->status = "Waiting to start...";
    MutexHold hold(MUTEX_REPORT);
    r_list.push_back(std::move(r));
    if (!write_list_locked()) {
        reason = "The report could not be saved; see the error log.";
        r_list.pop_back();
        return 0;
    }
    return 1;
}

int remove_email_report_settings(int position) {
    MutexHold hold(MUTEX_REPORT);
    if (position < 0 || position >= static_cast<int>(r_list.size())) return 0;
    r_list.erase(r_list.begin() + position);
    write_list_locked();
    return 1;
}

// ---------------------------------------------------------------- timing

time_t in_seconds(const char* t) {
    if (t != nullptr && strncasecmp(t, "day", 3) == 0) return 86400;
    if (t != nullptr && strncasecmp(t, "week", 4) == 0) return 604800;
    return 86400;
}

time_t get_time_of_next_report(struct tm* t, time_t now, time_t last, const char* freq, int hour, int mins) {
    safe_localtime(&now, t);
    const time_t period = in_seconds(freq);
    if (freq == nullptr || strncasecmp(freq, "day", 3) != 0) {
        int want = -1;
        for (int d = 0; d < 7 && freq != nullptr; ++d)
            if (strcasestr(freq, xdays[d]) != nullptr) want = d;
        for (int i = 0; want >= 0 && i < 7 && t->tm_wday != want; ++i) {
            t->tm_mday += 1;
            t->tm_isdst = -1;
            t->tm_hour = 12;  // away from a daylight change while stepping
            mktime(t);
        }
    }
    t->tm_hour = hour;
    t->tm_min = mins;
    t->tm_sec = 0;
    t->tm_isdst = -1;
    time_t when = mktime(t);
    while (when < now || when - last < 20) when += period;
    safe_localtime(&when, t);
    return when;
}

// ---------------------------------------------------------------- a run

std::string report_date(time_t t) {
    tm d{};
    if (!safe_localtime(&t, &d)) return "";
    return strfmt("%d/%s/%d", d.tm_mday, months[d.tm_mon], d.tm_year + 1900);
}

int ereport_gather(EmailReportGenerator* itm, time_t from, time_t to, time_t now) {
    XferFilter f;
    f.ul = get_bool(itm, "ul") != 0;
    f.dl = get_bool(itm, "dl") != 0;
    f.sec_from = from;
    f.sec_to = to;
    f.filter = get_charptr(itm, "filter");
    itm->data.clear();
    itm->data.match_size_too = get_bool(itm, "single") != 0;
    std::string log;
    const std::string dom = domain_dir_name(itm);
    ini_domain_log_file(log, dom.c_str(), "xfer.log");
    std::string previous;
    int files = 0;
    for (time_t t = from; t <= to; t += 86400) {
        std::string name = emsg_fname_date_at(log, t, now);
        if (name == previous) continue;
        previous = name;
        imsg("e-reporting: Report %d %.500s\n", static_cast<int>(t), name.c_str());
        if (ereport_process(name.c_str(), f, [itm](const EreportDataUnit& u) { itm->data.add(u); }) >= 0) ++files;
    }
    return files;
}

std::string ereport_sender_domain(const EmailReportGenerator* itm) {
    std::string d = domain_dir_name(itm);
    if (d.find('.') == std::string::npos) d += ".ftp";
    return d;
}

int do_generate_headers(Chan* c, time_t event, void* data, const char* emailCR) {
    const MailJob* job = static_cast<const MailJob*>(data);
    const std::string dom = domain_dir_name(job->itm);
    std::string h = strfmt("From: \"Korvane Domain %s Report\" <korvane@%s>%s", dom.c_str(),
                           ereport_sender_domain(job->itm).c_str(), emailCR);
    strfmt_append(h, "To: <%s>%s", job->to.c_str(), emailCR);
    strfmt_append(h, "Subject: Korvane Report %s %s%s", dom.c_str(), job->itm->current_to.c_str(), emailCR);
    h += smtp_date_header(event, emailCR);
    return smtp_write(c, h);
}

bool ereport_body_lines(const EmailReportGenerator* itm, const ReportLineFn& out) {
    const std::string dom = domain_dir_name(itm);
    const int hr = get_int(itm, "when_hr"), mn = get_int(itm, "when_min");
    if (!out(strfmt("This is a file transfer report generated by Korvane for %s.", dom.c_str()))) return false;
    if (!out(strfmt("For the period %s %d:%02d to %s %d:%02d", itm->current_from.c_str(), hr, mn,
                    itm->current_to.c_str(), hr, mn)) ||
        !out(""))
        return false;
    ReportColumns cols;
    cols.problems = get_bool(itm, "problems") != 0;
    cols.speeds = get_bool(itm, "speeds") != 0;
    cols.single = get_bool(itm, "single") != 0;
    cols.size = get_bool(itm, "size") != 0;
    if (get_bool(itm, "top10")) {
        if (get_bool(itm, "ul")) {
            if (!out("  Here is a list of the top ten uploads.") ||
                !list_do_top_n(out, cols, itm->data, ReportKind::ul, 10) || !out(""))
                return false;
        }
        if (get_bool(itm, "dl")) {
            if (!out("  Here is a list of the top ten downloads.") ||
                !list_do_top_n(out, cols, itm->data, ReportKind::dl, 10) || !out(""))
                return false;
        }
    }
    if (get_bool(itm, "full_list")) {
        if (!out("  Here is a list of all files.") || !list_do_top_n(out, cols, itm->data, ReportKind::both, -1) ||
            !out(""))
            return false;
    }
    return true;
}

int do_generate_body(Chan* c, time_t /*event*/, void* data, const char* emailCR) {
    const MailJob* job = static_cast<const MailJob*>(data);
    return ereport_body_lines(job->itm, [&](std::string_view line) { return smtp_body_line(c, line, emailCR) != 0; })
               ? 1
               : 0;
}

namespace {

int ereport_generate(EmailReportGenerator* itm, time_t event, std::string& reason) {
    std::vector<std::string> to;
    if (!ereport_recipients(get_charptr(itm, "email"), to, reason)) {
        emsg("e-reporting: %s", reason.c_str());
        return 0;
    }
    const char* smtp = ini_get(nullptr, INI_GLOBAL_SMTP);
    const char* from = ini_get(nullptr, INI_EMAIL);
    int ok = 1;
    std::string failure;
    for (const std::string& addr : to) {
        imsg("e-reporting: sending report to (%.500s)", addr.c_str());
        MailJob job{itm, addr};
        std::string why;
        if (!send_email(smtp != nullptr ? smtp : "", kEreportIdentity, from != nullptr ? from : "", addr.c_str(), event,
                        &job, do_generate_headers, do_generate_body, why)) {
            emsg("e-reporting: report to (%.500s) not sent: %s", addr.c_str(), why.c_str());
            ok = 0;
            if (failure.empty()) failure = why;
        }
    }
    reason = ok ? std::string("Success.") : failure;
    return ok;
}

}  // namespace

int ereport_run(EmailReportGenerator* itm, time_t event, time_t from, time_t to, std::string& reason) {
    const std::string dfrom = report_date(from), dto = report_date(to);
    ereport_log_flush();
    imsg("e-reporting: starting emailed report running, report dates (%.500s) to (%.500s)\n", dfrom.c_str(),
         dto.c_str());
    if (dfrom.empty() || dto.empty()) {
        imsg("e-reporting: emailed report failed, incorrect date\n");
        reason = "Failure: incorrect date.";
        return 0;
    }
    if (lib_date_get(dfrom.c_str()) == 0) {
        reason = "Failure: From incorrect date.";
        return 0;
    }
    if (lib_date_get(dto.c_str()) == 0) {
        reason = "Failure: To incorrect date.";
        return 0;
    }
    imsg("e-reporting: Report %d %d  email =(%.500s)\n", static_cast<int>(from), static_cast<int>(to),
         get_charptr(itm, "email"));
    itm->sec_from = from;
    itm->sec_to = to;
    ereport_gather(itm, from, to, time(nullptr));
    itm->current_from = dfrom;
    itm->current_to = dto;
    int ok = ereport_generate(itm, event, reason);
    itm->data.clear();
    if (ok) imsg("e-reporting: completed emailed report successfuly\n");
    return ok;
}

namespace {

void set_status(const ReportPtr& r, const std::string& text) {
    MutexHold hold(MUTEX_REPORT);
    r->status = text;
}

void run_copy(const ReportPtr& r, time_t now, time_t from, std::string& reason, int& ok) {
    EmailReportGenerator copy;
    {
        MutexHold hold(MUTEX_REPORT);
        r->status = "Processing now...";
        copy = *r;
    }
    ok = ereport_run(&copy, now, from, now, reason);
    tm t{};
    safe_localtime(&now, &t);
    set_status(r, ok ? strfmt("At %s %d %02d:%02d, %s", months[t.tm_mon], t.tm_mday, t.tm_hour, t.tm_min, reason.c_str())
                     : strfmt("Problem: %s", reason.c_str()));
}

}  // namespace

int check_for_reports_to_run(time_t now) {
    std::vector<ReportPtr> due;
    {
        MutexHold hold(MUTEX_REPORT);
        for (const ReportPtr& r : r_list) {
            tm t{};
            time_t next = get_time_of_next_report(&t, now, r->last_report_at, get_charptr(r.get(), "frequency"),
                                                  get_int(r.get(), "when_hr"), get_int(r.get(), "when_min"));
            if (next > now || labs(static_cast<long>(now - r->last_report_at)) < kEreportResendGap) continue;
            // Saved before the run, so that a crash in it does not repeat it.
            set_time_t(r.get(), "last_report_at", now);
            due.push_back(r);
        }
        if (!due.empty()) write_list_locked();
    }
    for (const ReportPtr& r : due) {
        std::string reason;
        int ok = 0;
        run_copy(r, now, now - in_seconds(get_charptr(r.get(), "frequency")), reason, ok);
    }
    return static_cast<int>(due.size());
}

int ereport_run_now(int position, std::string& reason) {
    ReportPtr r;
    {
        MutexHold hold(MUTEX_REPORT);
        if (position < 0 || position >= static_cast<int>(r_list.size())) {
            reason = "There is no such report.";
            return 0;
        }
        r = r_list[static_cast<size_t>(position)];
    }
    const time_t now = time(nullptr);
    int ok = 0;
    run_copy(r, now, now - in_seconds(get_charptr(r.get(), "frequency")), reason, ok);
    return ok;
}

// ---------------------------------------------------------------- the thread

int ereport_init(const char* home) {
    ereport_set_dir(home != nullptr ? home : ".");
    int n = load_ereport();
    imsg("e-reporting: %d report definitions loaded", n);
    if (!main_new_thread(report_thread, nullptr, nullptr, THREAD_ID_REPORT_PROCESS, kThreadStack)) {
        emsg("e-reporting: the report thread could not be started");
        return 0;
    }
    return 1;
}

}  // namespace korv
