// External authentication modules: the table of module rows, their processes, the request path,
// and the waiters. A request waits on its module's output pipe and on a descriptor of its own that
// whoever completes the request writes to, so a reply reaches exactly the waiter that asked and
// nobody sleeps in rounds.
#include "server/auth/mex_auths.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/fmt.h"
#include "base/str.h"
#include "net/spawn.h"

namespace korv {

// A request in flight. The row that serves it holds a pointer to it; `done`, `result` and the
// callback are touched only under that row's lock.
struct MEX_WAIT {
    std::string result;        // each reply line in turn; the final one stays
    bool done = false;
    MexDataFn cb = nullptr;    // gets each "+DATA" line
    void* p1 = nullptr;
    int wake = -1;             // written once the request is complete

    MEX_WAIT() : wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~MEX_WAIT() {
        if (wake >= 0) ::close(wake);
    }
    MEX_WAIT(const MEX_WAIT&) = delete;
    MEX_WAIT& operator=(const MEX_WAIT&) = delete;
};

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kResetText = "-ERR External process failed, due to reset\r\n";
constexpr const char* kShutdownText = "-ERR External process failed shutdown\r\n";

// One module: MULTI_AUTH_DATA of the table `active`.
struct MULTI_AUTH_DATA {
    std::mutex m;                 // guards every field below
    std::condition_variable cv;   // the row went back to P_READY
    std::string domain_name;      // "" in row 0
    std::string authentication_command;
    std::string pbf;              // bytes read and not yet taken as lines
    MEX_WAIT* pwait = nullptr;    // the request in flight
    int broken = 0;               // the spawn failed: refuse requests
    int ndone = 0;
    int ops = 0;                  // requests since the last start
    int pstate = P_UNSET;
    int use_default = 0;          // no process of its own
    Clock::time_point p_tout{};   // when the request in flight times out
    osspawn_info pinfo;
};
using Row = MULTI_AUTH_DATA;
using Lock = std::unique_lock<std::mutex>;

Row g_active[kMexRows];
std::atomic<int> g_active_processes{0};
std::atomic<MexMsgFn> g_imsg{nullptr};
std::atomic<MexMsgFn> g_emsg{nullptr};
std::atomic<bool> g_inited{false};
std::atomic<bool> g_env_cleared{false};
std::atomic<int> g_restart{0};
std::atomic<int> g_timeout{kMexRequestTimeout};
std::mutex g_admin;  // start, stop and the making of rows, one at a time

// Sends a formatted line to the log function the server gave mex_init, if any.
__attribute__((format(printf, 2, 0))) void log_to(MexMsgFn f, const char* format, va_list ap) {
    if (!f) return;
    std::string s = vstrfmt(format, ap);
    f("%s", s.c_str());
}

__attribute__((format(printf, 1, 2))) void ilog(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    log_to(g_imsg.load(), format, ap);
    va_end(ap);
}

__attribute__((format(printf, 1, 2))) void elog(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    log_to(g_emsg.load(), format, ap);
    va_end(ap);
}

std::string cut(std::string s, size_t n) {
    if (s.size() > n) s.resize(n);
    return s;
}

bool starts(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }

// A request as it may be logged or echoed: never with a password.
std::string shown_request(std::string_view cmdline) {
    return starts(cmdline, "check") ? std::string("check **** *****") : std::string(cmdline);
}

bool has_pipes(const Row& r) { return r.pinfo.use_pipes && r.pinfo.std_input > 0 && r.pinfo.std_output > 0; }

// Hands the final line to the row's waiter and wakes it.
void finish_waiter(Row& r, std::string_view line) {
    MEX_WAIT* w = r.pwait;
    r.pwait = nullptr;
    if (!w) return;
    w->result.assign(line);
    w->done = true;
    if (w->wake >= 0) {
        uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(w->wake, &one, sizeof one);
    }
}

void set_ready(Row& r) {
    r.pstate = P_READY;
    r.cv.notify_all();
}

[[noreturn]] void mex_abort(const char* what) {
    elog("mex_auths: Aborting since locked up in poll loop %s\n", what);
    std::abort();
}

// The lock of row `id` is held by the caller in every function of this section.

int mex_spawn(int id) {
    Row& r = g_active[id];
    r.pinfo = osspawn_info{};
    r.pbf.clear();
    std::string reason;
    if (libspawn_create(r.authentication_command.c_str(), &reason, 1, &r.pinfo)) {
        ilog("mex_auths: Spawned (%.500s) ProcessID=%d\n", r.authentication_command.c_str(), r.pinfo.pid);
        return 1;
    }
    elog("mex_auths: Could not spawn {%s} reason: %.500s\n", r.authentication_command.c_str(), reason.c_str());
    return 0;
}

int reset_locked(int id) {
    Row& r = g_active[id];
    if (r.pstate == P_BUSY) {
        ilog("mex_auths: mex_reset() was busy, setting done\n");
        finish_waiter(r, kResetText);
    }
    set_ready(r);
    if (!r.authentication_command.empty()) {
        if (!g_inited) return 1;  // stopping: nothing is started again
        ilog("mex_auths: Now respawning domain %s authent process %s\n", r.domain_name.c_str(),
             r.authentication_command.c_str());
        mex_spawn(id);
    } else {
        r.use_default = 1;
    }
    return 1;
}

int end_locked(int id) {
    Row& r = g_active[id];
    osspawn_info& p = r.pinfo;
    if (p.pid <= 0) return 1;
    const char* cmd = r.authentication_command.c_str();
    if (p.reaped) {
        int n = 0;
        osspawn_close_all_pipes(&p, &n);
        return 1;
    }
    bool wrote = false;
    if (p.use_pipes && p.std_input >= 1) wrote = libspawn_write_stdin(&p, "exit\n", 5, nullptr) > 0;
    // A module that read "exit" has a tenth of a second and then 0.9 more to go.
    if (libspawn_is_process_finished(&p, wrote ? 1.0 : 0.9, nullptr)) {
        ilog("mex_auths: Authent process exited mexid:%d {%s} pid:%d", id, cmd, p.pid);
        return 1;
    }
    if (!libspawn_is_process_finished(&p, 0.2, nullptr)) {
        std::string reason;
        if (!libspawn_terminate(&p, 2.2, 2.2, &reason)) {
            elog("mex_auths: Could not end authent process mexid:%d {%s} pid:%d, reason: %s, Restart Korvane!", id,
                 cmd, p.pid, reason.c_str());
            int n = 0;
            osspawn_close_all_pipes(&p, &n);
            return 0;
        }
    }
    ilog("mex_auths: Authent process exited late mexid:%d {%s} pid:%d", id, cmd, p.pid);
    return 1;
}

// Reads what the module has written and takes out every complete line. 0 when the module has
// gone (end of file, an error, or a line longer than the buffer).
int mex_read(int id) {
    Row& r = g_active[id];
    if (!has_pipes(r)) return 0;
    const int room = kMexReadBuf - 1 - static_cast<int>(r.pbf.size());
    if (room < 1) return 0;
    char bf[kMexReadBuf];
    int n = osspawn_readpipe(r.pinfo.std_output, bf, room, nullptr);
    if (n < 1) return 0;
    r.pbf.append(bf, static_cast<size_t>(n));
    size_t pos = 0;
    bool final_seen = false;
    for (size_t nl; (nl = r.pbf.find('\n', pos)) != std::string::npos;) {
        if (final_seen) break;
        std::string_view line(r.pbf.data() + pos, nl - pos);
        pos = nl + 1;
        if (r.pwait) r.pwait->result.assign(line);
        if (starts(line, "+DATA")) {
            if (r.pwait && r.pwait->cb) r.pwait->cb(r.pwait->p1, r.pwait->result.c_str());
        } else if (starts(line, "-ERR") || starts(line, "-DEAD") || starts(line, "+OK")) {
            final_seen = true;
            r.ndone++;
            finish_waiter(r, line);
            set_ready(r);
        }
    }
    if (final_seen && pos < r.pbf.size())
        ilog("mex_auths: P_READY state and more data ?? (%.500s) from module (%s)\n", r.pbf.c_str() + pos,
             r.authentication_command.c_str());
    r.pbf.erase(0, pos);
    return 1;
}

bool output_ready(const Row& r) {
    if (!has_pipes(r)) return false;
    struct pollfd p{r.pinfo.std_output, POLLIN, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLIN | POLLHUP | POLLERR));
}

// One look at a busy row: its time limit, then its output.
void service_locked(int id) {
    Row& r = g_active[id];
    if (r.pstate != P_BUSY) return;
    if (Clock::now() >= r.p_tout) {
        elog("mex_auths: spawn poll timeout, restarting authentication process %s\n", r.authentication_command.c_str());
        end_locked(id);
        reset_locked(id);
    } else if (output_ready(r) && !mex_read(id)) {
        end_locked(id);
        reset_locked(id);
    }
}

void restart_one_locked(int id, const char* process) {
    Row& r = g_active[id];
    r.ops = 0;
    if (!r.authentication_command.empty()) end_locked(id);
    if (process && r.authentication_command != process) r.authentication_command = process;
    if (!r.authentication_command.empty()) {
        reset_locked(id);
    } else {
        // No module any more: answer a waiter now rather than at its time limit.
        if (r.pstate == P_BUSY) finish_waiter(r, kResetText);
        set_ready(r);
        r.use_default = 1;
    }
}

// Sends one request on a chosen row.
void mex_do_cmd(int id, std::string_view cmdline, MEX_WAIT& w) {
    Row& r = g_active[id];
    if (!g_inited) {
        w.result = "-ERR mex_init was not called";
        w.done = true;
        return;
    }
    r.pwait = &w;
    r.ops++;
    // The line ends at its first CR or LF, with one LF.
    std::string line(cmdline.substr(0, cmdline.find_first_of("\r\n")));
    line += '\n';
    r.pstate = P_BUSY;
    r.p_tout = Clock::now() + std::chrono::seconds(g_timeout.load());
    if (cmdline.empty()) return;
    int n = has_pipes(r) ? libspawn_write_stdin(&r.pinfo, line.data(), static_cast<int>(line.size()), nullptr) : -1;
    if (n < 1) {
        std::string shown = shown_request(cmdline);
        elog("mex_auths: spawn_write failed, restarting authentication module. request:(%s) cmdline:(%s)\n",
             shown.c_str(), r.authentication_command.c_str());
        end_locked(id);
        reset_locked(id);
    }
}

void fail(MEX_WAIT& w, std::string text, size_t bound = kMexErrText - 1) {
    w.result = cut(std::move(text), bound);
    w.done = true;
}

// Chooses a row and sends the request; returns the row (0 when none was found).
int mex_cmd(const char* domain, std::string_view cmdline, MEX_WAIT& w) {
    const char* dom = domain ? domain : "";
    std::string shown = shown_request(cmdline);
    int id = get_id_next_available_domain(dom);
    if (id < 0) {
        fail(w, strfmt("-ERR This Domain (%s) authentication does not support command (%s)", dom, shown.c_str()));
        return 0;
    }
    Row& r = g_active[id];
    Lock lk(r.m);
    ilog("mex: id=%d dom=(%s) proc=(%s) cmd=(%s)\n", id, dom, r.authentication_command.c_str(), shown.c_str());
    if (r.broken) {
        fail(w, strfmt("-ERR Domain (%s) Spawn of authent process failed (%s), examine log file and fix", dom,
                       r.authentication_command.c_str()));
        return id;
    }
    if (mex_n() == 0) {
        fail(w, "-ERR No authent process, use system utilities or define authent_process");
        return id;
    }
    bool told = false;
    for (;;) {
        if (!g_inited) {
            fail(w, "-ERR mex_init was not called with real imsg ptr", kMexInitErrText - 1);
            return id;
        }
        if (r.pstate == P_READY) {
            int restart = g_restart.load();
            if (restart < 1 || r.ops <= restart) break;
            restart_one_locked(id, r.authentication_command.c_str());
            continue;
        }
        if (!told) {
            ilog("mex_auths: All processes busy, waiting for one, should only wait .1 of second\n");
            told = true;
        }
        if (r.pstate == P_BUSY) {
            // The request in flight ends by its reply or its time limit; past the limit, end it here.
            if (r.cv.wait_until(lk, r.p_tout + std::chrono::milliseconds(50)) == std::cv_status::timeout)
                service_locked(id);
        } else {
            r.cv.wait_for(lk, std::chrono::seconds(1));  // not set up yet: shut down or being started
        }
    }
    mex_do_cmd(id, cmdline, w);
    return id;
}

// Waits until the request is complete: on the module's output, on the waiter's own descriptor,
// and on the row's time limit.
void mex_wait(int id, MEX_WAIT& w, const char* what) {
    if (w.done) return;
    Row& r = g_active[id];
    const Clock::time_point give_up = Clock::now() + std::chrono::seconds(kMexAbortWait);
    Lock lk(r.m);
    while (!w.done) {
        service_locked(id);
        if (w.done) break;
        if (r.pwait != &w) {  // the row no longer holds this request
            w.result = kResetText;
            w.done = true;
            break;
        }
        struct pollfd p[2] = {{has_pipes(r) ? r.pinfo.std_output : -1, POLLIN, 0}, {w.wake, POLLIN, 0}};
        Clock::time_point until = std::min(r.p_tout, give_up);
        lk.unlock();
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count() + 1;
        ::poll(p, 2, static_cast<int>(std::clamp<long long>(left, 0, 600000)));
        uint64_t v;
        [[maybe_unused]] ssize_t n = ::read(w.wake, &v, sizeof v);
        lk.lock();
        if (!w.done && Clock::now() >= give_up) mex_abort(what);
    }
}

// One request from start to end: 1 if the final line begins with '+'.
int mex_request(const char* domain, std::string_view cmdline, std::string& result, MexDataFn fn, void* p1,
                const char* what, int* row = nullptr) {
    MEX_WAIT w;
    w.cb = fn;
    w.p1 = p1;
    int id = mex_cmd(domain, cmdline, w);
    mex_wait(id, w, what);
    if (row) *row = id;
    result = std::move(w.result);
    return !result.empty() && result[0] == '+' ? 1 : 0;
}

// Starts row `id`'s module and sets its state; the lock is held.
void start_row_locked(int id, const char* ready_text) {
    Row& r = g_active[id];
    if (mex_spawn(id)) {
        r.broken = 0;
        set_ready(r);
        if (id == 0)
            ilog("mex_auths: default domain ready.\n");
        else
            ilog(ready_text, r.domain_name.c_str());
    } else {
        r.pstate = P_SPAWN_FAILED;
        r.broken = 1;
        elog("mex_auths: domain authentication will not start \"%s\" cmd:(%s)\n", r.domain_name.c_str(),
             r.authentication_command.c_str());
    }
}

// Ends every module and answers every waiter. The admin lock is held.
void stop_rows(int force) {
    const int n = g_active_processes.load();
    int had = 0, ok = 0;
    for (int id = 0; id < n; ++id) {
        Row& r = g_active[id];
        Lock lk(r.m, std::defer_lock);
        if (!force) lk.lock();
        if (r.authentication_command.empty()) continue;
        ++had;
        int was = r.pstate;
        r.pstate = P_BUSY;
        if (!end_locked(id)) {
            elog("external processes %s remains running", r.authentication_command.c_str());
            if (was != P_BUSY) r.pstate = was;
        } else {
            ++ok;
            if (was != P_BUSY) r.pstate = P_UNSET;
        }
    }
    ilog("%d/%d external processes exited normally.", ok, had);
    for (int id = 0; id < n; ++id) {
        Row& r = g_active[id];
        Lock lk(r.m, std::defer_lock);
        if (!force) lk.lock();
        if (r.pwait) finish_waiter(r, kShutdownText);
        r.pbf.clear();
        set_ready(r);
    }
}

}  // namespace

int mex_init(MexMsgFn vimsg, MexMsgFn vemsg, int n, const multi_auth_scenario* scenario) {
    if (g_inited) mex_shutdown();
    std::lock_guard<std::mutex> admin(g_admin);
    if (!g_env_cleared.exchange(true)) ex_init_env(nullptr);
    n = std::clamp(n, 0, kMexMaxInit);
    for (int id = 0; id < kMexRows; ++id) {
        Row& r = g_active[id];
        std::lock_guard<std::mutex> g(r.m);
        r.domain_name = id < n && scenario ? scenario[id].domain_name : "";
        r.authentication_command = id < n && scenario ? scenario[id].authentication_command : "";
        r.pbf.clear();
        r.pwait = nullptr;
        r.broken = r.ndone = r.ops = r.use_default = 0;
        r.pstate = P_UNSET;
        r.pinfo = osspawn_info{};
    }
    g_active_processes = n;
    g_imsg = vimsg;
    g_emsg = vemsg;
    g_inited = vimsg != nullptr;
    return mex_startall();
}

int mex_startall() {
    const int n = g_active_processes.load();
    int started = 0, wanted = 0;
    for (int id = 0; id < n; ++id) {
        Row& r = g_active[id];
        std::lock_guard<std::mutex> g(r.m);
        if (id == 0 && r.authentication_command.empty()) {
            ilog("mex_auths: Default Domains is using System Authentication.\n");
            r.broken = 0;
            set_ready(r);
            continue;
        }
        if (r.authentication_command.empty()) {
            r.use_default = 1;
            set_ready(r);
            continue;
        }
        ++wanted;
        start_row_locked(id, "mex_auths: domain ready \"%s\"\n");
        if (!r.broken) ++started;
    }
    ilog("mex_auths: started external processes %d/%d\n", started, wanted);
    return 1;
}

int mex_restart() {
    std::lock_guard<std::mutex> admin(g_admin);
    ilog("mex_auths: restart: stoping existing authentication processes\n");
    stop_rows(0);
    ilog("mex_auths: restart: starting authentication processes\n");
    mex_startall();
    ilog("mex_auths: restart: done\n");
    return 1;
}

int mex_shutdown() { return mex_shutdown_raw(0); }

int mex_shutdown_raw(int force) {
    // Nothing is respawned from here on, and waiters that wake find no module.
    bool was = g_inited.exchange(false);
    if (!was && g_active_processes.load() == 0) return 1;
    if (force) {
        stop_rows(1);
    } else {
        std::lock_guard<std::mutex> admin(g_admin);
        stop_rows(0);
    }
    return 1;
}

void mex_crash_shutdown() { mex_shutdown_raw(1); }

int mex_restart_domain(const char* domain, const char* process, int do_default_domain) {
    std::lock_guard<std::mutex> admin(g_admin);
    const char* proc = process ? process : "";
    if (do_default_domain) {
        Row& r = g_active[0];
        Lock lk(r.m);
        if (!*proc && r.authentication_command.empty()) return 1;
        restart_one_locked(0, proc);
        if (*proc) r.use_default = 0;
        return 1;
    }
    // The domain's own row, even one that gave up its module; else the usual choice, which falls
    // back to the default row.
    const char* dom = domain ? domain : "";
    int id = -1;
    for (int i = 1; i < g_active_processes.load() && id < 0; ++i) {
        std::lock_guard<std::mutex> g(g_active[i].m);
        if (strcmpnc(g_active[i].domain_name.c_str(), dom) == 0) id = i;
    }
    if (id < 0) id = get_id_next_available_domain(dom);
    if (id < 0) {
        id = g_active_processes.load();
        if (id >= kMexRows) return 0;
        Row& r = g_active[id];
        {
            std::lock_guard<std::mutex> g(r.m);
            r.domain_name = dom;
            r.authentication_command = proc;
            r.pbf.clear();
            r.pwait = nullptr;
            r.ops = r.ndone = r.use_default = 0;
            start_row_locked(id, "mex_auths: domain authentication ready \"%s\"\n");
        }
        g_active_processes = id + 1;
        return 1;
    }
    Row& r = g_active[id];
    Lock lk(r.m);
    restart_one_locked(id, proc);
    r.use_default = *proc ? 0 : 1;
    return 1;
}

int mex_restart_one(int active_id, const char* process) {
    if (active_id < 0 || active_id >= kMexRows) return 0;
    Lock lk(g_active[active_id].m);
    restart_one_locked(active_id, process);
    return 1;
}

int mex_reset(int active_id) {
    if (active_id < 0 || active_id >= kMexRows) return 0;
    Lock lk(g_active[active_id].m);
    return reset_locked(active_id);
}

int end_external_process(int active_id) {
    if (active_id < 0 || active_id >= kMexRows) return 0;
    Lock lk(g_active[active_id].m);
    return end_locked(active_id);
}

int mex_reply_names_user(std::string_view line, std::string_view user, std::string& word) {
    word.clear();
    size_t b = line.find(' ');
    if (b == std::string_view::npos) return 0;
    std::string_view rest = line.substr(b + 1, kMexFieldMax);
    size_t e = rest.find(' ');
    word.assign(rest.substr(0, e));
    bool three = e != std::string_view::npos && rest.find_first_not_of(' ', e) != std::string_view::npos;
    return three && word == user ? 1 : 0;
}

int mex_name_ok(std::string_view user) {
    if (user.empty() || user.size() > kMexNameMax) return 0;
    for (char ch : user) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c <= ' ' || c == 0x7F || c == '#') return 0;
    }
    return 1;
}

namespace {

// A name the line protocol cannot carry would shift the request's words or
// read as a comment, and the module's answer would then name someone else.
int refuse_bad_name(const char* user, std::string& result) {
    if (mex_name_ok(user != nullptr ? user : "")) return 0;
    result = kMexBadName;
    return 1;
}

}  // namespace

int mex_check(const char* domain, const char* user, const char* pass, std::string& result) {
    if (refuse_bad_name(user, result)) return 0;
    const char* u = user ? user : "";
    std::string cmd = pass ? strfmt("check %s %s", u, pass) : strfmt("lookup %s", u);
    int id = 0;
    int ok = mex_request(domain, cut(std::move(cmd), kMexRequestMax - 1), result, nullptr, nullptr, "check failed",
                         &id);
    std::string word;
    if (mex_reply_names_user(result, u, word)) return ok;
    // A stale reply, or one without the user in second place: the module starts afresh.
    if (word != u) elog("Wrong user returned, trying again got (%s) %s wanted (%s)\n", word.c_str(), result.c_str(), u);
    elog("Bad response (%s)\n", result.c_str());
    Lock lk(g_active[id].m);
    end_locked(id);
    reset_locked(id);
    return 0;
}

int mex_lookup(const char* domain, const char* user, std::string& result) {
    if (refuse_bad_name(user, result)) return 0;
    std::string cmd = cut(strfmt("lookup %s", user ? user : ""), kMexRequestMax - 1);
    return mex_request(domain, cmd, result, nullptr, nullptr, "lookup failed");
}

int mex_set(const char* domain, const char* user, const char* pass, const char* info, std::string& result) {
    if (refuse_bad_name(user, result)) return 0;
    result.clear();
    std::string cmd = strfmt("set %s %s %s", user ? user : "", pass ? pass : "", info ? info : "");
    return mex_request(domain, cmd, result, nullptr, nullptr, "set failed");
}

int mex_del(const char* domain, const char* user, std::string& result) {
    if (refuse_bad_name(user, result)) return 0;
    std::string cmd = cut(strfmt("del %s", user ? user : ""), kMexRequestMax - 1);
    return mex_request(domain, cmd, result, nullptr, nullptr, "del failed");
}

int mex_search(const char* domain, const char* wild, std::string& result, MexDataFn fn, void* p1) {
    std::string cmd = strfmt("search %.100s", wild ? wild : "");
    return mex_request(domain, cmd, result, fn, p1, "search failed");
}

int get_id_next_available_domain(const char* domain) {
    const char* dom = domain ? domain : "";
    const int n = g_active_processes.load();
    int first = -1;
    for (int id = 1; id < n; ++id) {
        Row& r = g_active[id];
        std::lock_guard<std::mutex> g(r.m);
        // A row that gave up its module leaves its domain to the default.
        if (r.use_default || strcmpnc(r.domain_name.c_str(), dom) != 0) continue;
        if (r.pstate == P_READY) return id;
        if (first < 0) first = id;
    }
    if (first >= 0) return first;
    std::lock_guard<std::mutex> g(g_active[0].m);
    return n > 0 && !g_active[0].authentication_command.empty() ? 0 : -1;
}

int mex_poll() {
    const int n = g_active_processes.load();
    int busy = 0;
    for (int id = 0; id < n; ++id) {
        Lock lk(g_active[id].m, std::try_to_lock);
        if (!lk.owns_lock()) continue;  // someone is at work on it
        service_locked(id);
        if (g_active[id].pstate == P_BUSY) ++busy;
    }
    return busy;
}

int mex_decode(std::string& data, std::string_view field, std::string& result) {
    result.clear();
    std::string key(field);
    key += "=\"";
    size_t at = data.find(key);
    if (at == std::string::npos) return 0;
    size_t from = at + key.size();
    size_t close = data.find('"', from);
    result = cut(data.substr(from, close == std::string::npos ? std::string::npos : close - from), kMexFieldMax);
    if (close == std::string::npos) {
        data.resize(at);
    } else {
        size_t end = data.find_first_not_of(" \t", close + 1);
        data.erase(at, (end == std::string::npos ? data.size() : end) - at);
    }
    return 1;
}

int mex_n() { return g_active_processes.load(); }

int mex_count_external_auth_processes() {
    const int n = g_active_processes.load();
    int count = 0;
    for (int id = 0; id < n; ++id) {
        Row& r = g_active[id];
        std::lock_guard<std::mutex> g(r.m);
        if (id == 0 ? !r.authentication_command.empty() : !r.use_default) ++count;
    }
    return count;
}

int mex_information(std::string& bf) {
    bf = strfmt(" %7s %6s %15s  %s\n", "PID", "Cmds ", "Domain", "Authentication Module");
    const int n = g_active_processes.load();
    int listed = 0;
    for (int id = 0; id < n; ++id) {
        Row& r = g_active[id];
        std::lock_guard<std::mutex> g(r.m);
        if (id != 0 && r.use_default) continue;
        std::string ops = strfmt("%d", r.ops);
        const char* dom = id == 0 && r.domain_name.empty() ? "(default)" : r.domain_name.c_str();
        const char* cmd =
            id == 0 && r.authentication_command.empty() ? "system authentication" : r.authentication_command.c_str();
        strfmt_append(bf, " % 7d %6.6s %15s  %s\n", r.pinfo.pid, ops.c_str(), dom, cmd);
        ++listed;
    }
    strfmt_append(bf, "    (%d listed)\n", listed);
    return 1;
}

void mex_setrestart(int x) { g_restart = x; }

void mex_set_request_timeout(int seconds) { g_timeout = seconds > 0 ? seconds : kMexRequestTimeout; }

}  // namespace korv
