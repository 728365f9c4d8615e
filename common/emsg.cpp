// The main log and the error log: line format, levels, size rotation through
// six generations, daily rotation and syslog copies. Lines are serialised by
// lock EMSG through the thin path, so the log never counts itself in the wait table.
#include "common/emsg.h"

#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "base/fmt.h"
#include "base/report.h"
#include "base/threads.h"
#include "common/emsg_files.h"
#include "common/mutex.h"

namespace korv {

namespace {

const char* const log_names[] = {"error", "info", "debug", nullptr};
const char* const slvl[] = {"Err!", "Info", "dbug"};

constexpr size_t kStampCut = 11;  // bytes of the time stamp; a line counts only beyond them

// Everything below is guarded by EMSG (or by nothing once a crash disabled it).
struct LogState {
    LogFile f;
    LogFile ef;
    LogFile kf;
    LogFile wf;
    std::string save_name;
    std::string elogfile;
    long fsize = 0;
    long efsize = 0;
    long wfsize = 0;
    time_t day_noted = 0;
};

LogState& st() {
    // Never destroyed: detached threads may still log while the process exits,
    // and exit() flushes the open streams.
    static LogState* const s = new LogState;
    return *s;
}

std::atomic<int> log_lvl{1};
std::atomic<int> autoroll_on_size{1};
std::atomic<int> doflush{0};
std::atomic<int> nomutex{0};
std::atomic<bool> xs_host_set{false};

// Thin hold of EMSG for the log's own files.
class EmsgLock {
public:
    EmsgLock() : held_(nomutex.load() == 0) {
        if (held_) mutex_wait_fast(MUTEX_EMSG, __FILE__, __LINE__);
    }
    ~EmsgLock() {
        if (held_) mutex_release_fast(MUTEX_EMSG, __FILE__, __LINE__);
    }
    EmsgLock(const EmsgLock&) = delete;
    EmsgLock& operator=(const EmsgLock&) = delete;

private:
    bool held_;
};

int vlog(int lvl, const char* format, va_list ap) {
    std::string line = vstrfmt(format, ap);
    return emsg_do(lvl, line.c_str());
}

// The log's own failures cannot go to the log.
void log_oops(const std::string& s) {
    std::fputs(s.c_str(), stdout);
    std::fflush(stdout);
}

void rotate_files(const std::string& name) {
    std::string last = emsg_fname_n(name, kLogGenerations - 1);
    if (std::remove(last.c_str()) != 0 && errno != ENOENT) {
        log_oops(strfmt("Rotate failed (%s) %s\n", last.c_str(), errtext(errno).c_str()));
    }
    for (int i = kLogGenerations - 2; i >= 0; i--) {
        std::string from = emsg_fname_n(name, i);
        std::string to = emsg_fname_n(name, i + 1);
        if (std::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
            log_oops(strfmt("Rotate failed (%s) %s\n", from.c_str(), errtext(errno).c_str()));
        }
    }
}

// The foundation's error reports join the main log from the start.
[[maybe_unused]] const bool g_reports_to_log = (base_set_report(&emsg), true);

}  // namespace

// ---------------------------------------------------------------- entry points

int emsg(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int r = vlog(0, format, ap);
    va_end(ap);
    return r;
}

int imsg(const char* format, ...) {
    if (log_lvl.load() < 1) return 0;
    va_list ap;
    va_start(ap, format);
    int r = vlog(1, format, ap);
    va_end(ap);
    return r;
}

int dmsg(const char* format, ...) {
    if (log_lvl.load() < 2) return 0;
    va_list ap;
    va_start(ap, format);
    int r = vlog(2, format, ap);
    va_end(ap);
    return r;
}

int kmsg_open(const char* path) {
    EmsgLock lk;
    st().kf.close();
    return st().kf.open(path, "a") ? 1 : 0;
}

int kmsg(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    EmsgLock lk;
    LogState& s = st();
    if (!s.kf.is_open()) return 0;
    std::fprintf(s.kf.fp(), "%s:%d: %s", emsg_time().c_str(), th_id(), text.c_str());
    return 1;
}

int emsg_level() { return log_lvl.load(); }

int emsg_do(int lvl, const char* line) {
    EmsgLock lk;
    return emsg_dox(lvl, line);
}

namespace {

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7F; }

// The length of `text` without its line end ("\n", "\r\n", or the "\r" to
// which the log adds the "\n").
size_t body_length(std::string_view text) {
    size_t n = text.size();
    if (n > 0 && text[n - 1] == '\n') n--;
    if (n > 0 && text[n - 1] == '\r') n--;
    return n;
}

bool needs_escape(std::string_view text) {
    size_t n = body_length(text);
    for (size_t i = 0; i < n; i++) {
        if (is_control(static_cast<unsigned char>(text[i]))) return true;
    }
    return false;
}

}  // namespace

std::string log_escape(std::string_view text) {
    if (!needs_escape(text)) return std::string(text);
    size_t n = body_length(text);
    std::string out;
    out.reserve(text.size() + 16);
    for (size_t i = 0; i < n; i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (is_control(c)) {
            out += strfmt("\\x%02x", c);
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    out.append(text.substr(n));
    return out;
}

int emsg_dox(int lvl, const char* raw) {
    std::string escaped;
    const char* text = raw;
    if (needs_escape(raw)) {
        escaped = log_escape(raw);
        text = escaped.c_str();
    }
    if (lvl < 0) lvl = 0;
    if (lvl > 2) lvl = 2;
    LogState& s = st();
    emsg_syslog(lvl, text);
    std::string stamp = emsg_time();
    // One call is one line: a text without its "\n" would run into the next
    // entry, so it gets one here (and only then).
    size_t len = std::strlen(text);
    std::string ended;
    const char* line = text;
    if (len == 0 || text[len - 1] != '\n') {
        ended.reserve(len + 1);
        ended.append(text, len).push_back('\n');
        line = ended.c_str();
        len++;
    }
    long counted = len > kStampCut ? static_cast<long>(len - kStampCut) : 0;
    s.fsize += counted;

    bool autoroll = autoroll_on_size.load() != 0;
    bool roll = autoroll && s.fsize > kLogRollSize;
    if (roll && s.f.is_open()) {
        s.f.close();
        emsg_rotate(s.save_name.c_str());
    }
    if (roll || !s.f.is_open()) {
        s.fsize = 0;
        if (s.save_name.empty()) {
            std::fputs(line, stdout);
            if (lvl == 0 || doflush.load()) std::fflush(stdout);
            return 1;
        }
        // After a roll the name is free, so appending starts a new file; a
        // file that is still there is never cut.
        if (!s.f.open_making_dir(s.save_name, "a")) {
            log_oops(strfmt("Could not write to file (%s) %s\n", s.save_name.c_str(),
                            errtext(errno).c_str()));
            log_oops(line);
            return 0;
        }
    }

    std::fprintf(s.f.fp(), "%s:%s:%d: %s", stamp.c_str(), slvl[lvl], th_id(), line);

    if (!s.ef.is_open() && !s.elogfile.empty() && lvl == 0) s.ef.open_making_dir(s.elogfile, "a");
    if (lvl == 0 && s.ef.is_open()) {
        std::fprintf(s.ef.fp(), "%s:%s: %s", stamp.c_str(), slvl[lvl], line);
        std::fflush(s.ef.fp());
    }
    if (lvl == 0 || doflush.load()) std::fflush(s.f.fp());

    if (lvl == 0) {
        s.efsize += counted;
        if (autoroll && s.efsize > kErrLogRollSize && !s.elogfile.empty()) {
            s.efsize = 0;
            s.ef.close();
            emsg_rotate(s.elogfile.c_str());
            s.ef.open_making_dir(s.elogfile, "a");
        }
    }
    return 1;
}

// ---------------------------------------------------------------- settings

int emsg_setlvl(const char* s) {
    int n = -1;
    for (int i = 0; log_names[i] != nullptr; i++) {
        if (s != nullptr && strcasecmp(s, log_names[i]) == 0) n = i;
    }
    if (n >= 0) log_lvl = n;
    imsg("Loglvl (%.300s) %d\n", s != nullptr ? s : "", n);
    return n;
}

void emsg_setflush(int x) { doflush = x; }
void emsg_setautoroll(int truth) { autoroll_on_size = truth; }
void emsg_disable_mutex(int x) { nomutex = x; }

void emsg_syslog_host(const char* host) {
    xs_host_set = host != nullptr && host[0] != '\0';
    if (xs_host_set) openlog("Korvane", 0, LOG_FTP);
}

void emsg_syslog(int lvl, const char* bf) {
    if (!xs_host_set.load() || lvl == 2) return;
    syslog(lvl == 0 ? LOG_ERR : LOG_DEBUG, "%s", bf);
}

void syslog_cmds(const char* bf) {
    if (!xs_host_set.load()) return;
    EmsgLock lk;
    syslog(LOG_INFO, "%s", bf);
}

void syslog_auth(const char* bf) {
    if (!xs_host_set.load()) return;
    EmsgLock lk;
    syslog(LOG_NOTICE, "%s", bf);
}

// ---------------------------------------------------------------- files

int emsg_open(const char* logfile) {
    EmsgLock lk;
    LogState& s = st();
    emsg_open_error(logfile);
    s.save_name = logfile != nullptr ? logfile : "";
    s.f.close();
    if (s.save_name.empty()) return 1;  // back to standard output
    if (!s.f.open_making_dir(s.save_name, "a")) {
        std::perror(s.save_name.c_str());
        return 0;
    }
    s.fsize = s.f.size();
    return 1;
}

int emsg_open_error(const char* logfile) {
    EmsgLock lk;
    LogState& s = st();
    std::string name = logfile != nullptr ? logfile : "";
    s.ef.close();
    s.elogfile.clear();
    if (name.empty()) return 1;
    size_t at = name.rfind(".log");
    if (at != std::string::npos) {
        name.replace(at, 4, ".err");
    } else {
        name += ".err";
    }
    s.elogfile = name;
    s.efsize = file_size(name);
    return 1;
}

void emsg_close() {
    EmsgLock lk;
    st().f.close();
    st().ef.close();
}

void emsg_flush() {
    EmsgLock lk;
    if (st().f.is_open()) std::fflush(st().f.fp());
    if (st().ef.is_open()) std::fflush(st().ef.fp());
    std::fflush(stdout);
}

std::string emsg_fname() {
    EmsgLock lk;
    return st().save_name;
}

std::string emsg_fname_err() {
    EmsgLock lk;
    return st().elogfile;
}

void emsg_rotate(const char* fname) {
    LogState& s = st();
    std::string name = fname != nullptr ? fname : "";
    if (name == s.save_name) s.f.close();
    if (name == s.elogfile) s.ef.close();
    rotate_files(name);
}

int emsg_dayly_logging_rotate() { return emsg_dayly_logging_rotate_at(time(nullptr)); }

int emsg_dayly_logging_rotate_at(time_t now) {
    std::string failures_acces;
    std::string failures_other;
    {
        EmsgLock lk;
        LogState& s = st();
        if (s.day_noted == 0) {
            s.day_noted = now;
            return 1;
        }
        if (now - s.day_noted < 86400) return 1;
        s.day_noted = now;
        s.f.close();
        s.ef.close();
        const std::pair<std::string, const char*> logs[] = {{s.save_name, ".log"},
                                                            {s.elogfile, ".err"}};
        for (const auto& [name, ext] : logs) {
            if (name.empty()) continue;
            std::string archive;
            if (do_emsg_dayly_logging_rotate(now, name.c_str(), ext, archive)) continue;
            int err = errno;
            if (err == ENOENT) continue;  // nothing was logged there yet
            std::string note = strfmt("cant rename file (%s) to (%s), Error = %s\n", name.c_str(),
                                      archive.c_str(), errtext(err).c_str());
            (err == EACCES ? failures_acces : failures_other) += note;
        }
        if (!s.save_name.empty()) emsg_open(s.save_name.c_str());
    }
    if (!failures_acces.empty()) imsg("%s", failures_acces.c_str());
    if (!failures_other.empty()) emsg("%s", failures_other.c_str());
    return failures_acces.empty() && failures_other.empty() ? 1 : 0;
}

int do_emsg_dayly_logging_rotate(time_t current_time, const char* log_file_name, const char* ext,
                                 std::string& archive_name) {
    tm t{};
    localtime_r(&current_time, &t);
    std::string dated = strfmt("%04d%02d%02d%s", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, ext);
    archive_name = log_file_name;
    const char* found = ext;
    size_t at = archive_name.rfind(ext);
    if (at == std::string::npos) {
        found = ".err";
        at = archive_name.rfind(found);
    }
    if (at != std::string::npos) {
        archive_name.replace(at, std::strlen(found),
                             strfmt("%04d%02d%02d%s", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, found));
    } else {
        archive_name += dated;
    }
    return std::rename(log_file_name, archive_name.c_str()) == 0 ? 1 : 0;
}

std::string emsg_time() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // Every log line asks; the local time of a second is worked out once per
    // thread (ctime_r takes the C library's time-zone lock each call).
    thread_local time_t last = -1;
    thread_local char day_time[12];  // "dd hh:mm:ss"
    if (now.tv_sec != last) {
        char ct[32];
        ctime_r(&now.tv_sec, ct);
        std::memcpy(day_time, ct + 8, 11);
        day_time[11] = 0;
        last = now.tv_sec;
    }
    const int cc = static_cast<int>(now.tv_nsec / 10000000);
    std::string out(day_time, 11);
    out += '.';
    out += static_cast<char>('0' + cc / 10);
    out += static_cast<char>('0' + cc % 10);
    return out;
}

// ---------------------------------------------------------------- web log

int web_log(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    return web_log_do(text.c_str());
}

int web_log_do(const char* s) {
    EmsgLock lk;
    LogState& ls = st();
    std::string dir = ".";
    size_t slash = ls.save_name.rfind('/');
    if (slash != std::string::npos) dir = ls.save_name.substr(0, slash);
    std::string name = dir + "/wweb.log";
    if (!ls.wf.is_open()) {
        if (!ls.wf.open(name, "a")) return 0;
        ls.wfsize = ls.wf.size();
    }
    std::string line = strfmt("%s [%d] %s", emsg_time().c_str(), th_id(), s);
    std::fputs(line.c_str(), ls.wf.fp());
    ls.wfsize += static_cast<long>(line.size());
    if (ls.wfsize > kWebLogMaxSize) {
        ls.wf.close();
        std::remove(name.c_str());
        ls.wfsize = 0;
    }
    return 1;
}

int web_log_close() {
    EmsgLock lk;
    st().wf.close();
    return 1;
}

}  // namespace korv
