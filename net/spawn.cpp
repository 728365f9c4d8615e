// Child processes: fork and execve of a command split at blanks (never a shell), the three pipes,
// checks for the child's end (waiting on a process descriptor, not in sleep steps), timed pipe
// reads, staged termination, the list of children reaped later, and the spawn environment.
#include "net/spawn.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <mutex>
#include <vector>

#include "base/fmt.h"
#include "net/ssltcp.h"

extern char** environ;

namespace korv {

namespace {

std::mutex g_env_lock;
std::vector<std::string> g_ex_env;  // the spawn environment; empty means the server's own

constexpr int kEnvEntryMax = 999;

void set_reason(std::string* reason, std::string text) {
    if (reason) *reason = std::move(text);
}

std::string errno_text(int e) {
    char bf[256];
    return strerror_r(e, bf, sizeof bf);
}

struct Deadline {
    std::chrono::steady_clock::time_point at;
    explicit Deadline(double secs)
        : at(std::chrono::steady_clock::now() +
             std::chrono::microseconds(static_cast<long long>(std::max(0.0, secs) * 1e6))) {}
    int left_ms() const {
        auto now = std::chrono::steady_clock::now();
        if (now >= at) return 0;
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(at - now).count();
        return static_cast<int>(std::min<long long>((us + 999) / 1000, INT_MAX));
    }
};

// A bounded wait with nothing to wait on (a pipe at end of file keeps the caller's limit).
void wait_out(const Deadline& dl) {
    for (int left = dl.left_ms(); left > 0; left = dl.left_ms()) ::poll(nullptr, 0, left);
}

// Splits at blanks without quoting: quotes stay as they stand.
std::vector<std::string> split_blanks(const std::string& s) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size() && static_cast<int>(out.size()) < kSpawnMaxArgs) {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r' || s[i] == '\n')) ++i;
        size_t j = i;
        while (j < s.size() && s[j] != ' ' && s[j] != '\t' && s[j] != '\r' && s[j] != '\n') ++j;
        if (j > i) out.emplace_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

int pidfd_open_compat(int pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

// In the child after fork: only async-signal-safe calls from here to execve.
[[noreturn]] void child_exec(char** args, char** env, const int* in, const int* out, const int* err,
                             int max_fd) {
    if (in) {
        // Move the three ends above 2 first, so that none is overwritten by another's dup2.
        int a = ::fcntl(in[0], F_DUPFD, 3);
        int b = ::fcntl(out[1], F_DUPFD, 3);
        int c = ::fcntl(err[1], F_DUPFD, 3);
        if (a < 0 || b < 0 || c < 0 || ::dup2(a, 0) < 0 || ::dup2(b, 1) < 0 || ::dup2(c, 2) < 0)
            ::_exit(kSpawnExecFailed);
    }
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, 3U, ~0U, 0U) != 0)
#endif
        for (int fd = 3; fd < max_fd; ++fd) ::close(fd);
    struct sigaction sa{};
    sa.sa_handler = SIG_DFL;
    sigemptyset(&sa.sa_mask);
    for (int s = 1; s < NSIG; ++s) ::sigaction(s, &sa, nullptr);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(args[0], args, env);
    ::_exit(kSpawnExecFailed);
}

void close_pair(int* p) {
    for (int i = 0; i < 2; ++i)
        if (p[i] >= 0) ::close(p[i]);
    p[0] = p[1] = -1;
}

}  // namespace

int osspawn_close_on_exec(int fd) {
    int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0) return 0;
    return ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0 ? 1 : 0;
}

int osspawn_raw(char** args, const char* quoted_cmd, char** env, std::string* reason, int need_std_handles,
                osspawn_info* pinfo) {
    const char* cmd = quoted_cmd ? quoted_cmd : "";
    set_reason(reason, strfmt("OSSpawn: Attempting fork & execve on (%s)", cmd));
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    pinfo->use_pipes = 0;
    if (need_std_handles) {
        static constexpr const char* kStdWords[] = {"stdin", "stdout", "stderr"};
        for (int fd = 0; fd < 3; ++fd) {
            if (!osspawn_close_on_exec(fd)) {
                set_reason(reason, strfmt("OSSpawn: cant set autoclose %s: %s", kStdWords[fd], errno_text(errno).c_str()));
                return 0;
            }
        }
        struct Pipe {
            int* p;
            const char* word;
        } pipes[] = {{in, "read"}, {out, "write"}, {err, "error"}};
        ssltcp_ignore_sigpipe();
        for (const Pipe& p : pipes) {
            if (::pipe2(p.p, O_CLOEXEC) != 0) {
                set_reason(reason, strfmt("OSSpawn: %s: making %s pipe error: %s", cmd, p.word,
                                          errno_text(errno).c_str()));
                close_pair(in);
                close_pair(out);
                close_pair(err);
                return 0;
            }
        }
        pinfo->use_pipes = 1;
    }
    long open_max = ::sysconf(_SC_OPEN_MAX);
    int max_fd = open_max > 0 && open_max < INT_MAX ? static_cast<int>(open_max) : 65536;
    pid_t pid = ::fork();
    if (pid == 0) {
        if (need_std_handles)
            child_exec(args, env, in, out, err, max_fd);
        else
            child_exec(args, env, nullptr, nullptr, nullptr, max_fd);
    }
    int fork_errno = errno;
    // The child's ends belong to the child now.
    if (in[0] >= 0) ::close(in[0]);
    if (out[1] >= 0) ::close(out[1]);
    if (err[1] >= 0) ::close(err[1]);
    if (pid < 0) {
        if (in[1] >= 0) ::close(in[1]);
        if (out[0] >= 0) ::close(out[0]);
        if (err[0] >= 0) ::close(err[0]);
        pinfo->use_pipes = 0;
        set_reason(reason, strfmt("OSSpawn: fork failed: %s", errno_text(fork_errno).c_str()));
        return 0;
    }
    pinfo->pid = pid;
    pinfo->exitcode = 0;
    pinfo->reaped = 0;
    pinfo->std_input = need_std_handles ? in[1] : 0;
    pinfo->std_output = need_std_handles ? out[0] : 0;
    pinfo->std_error = need_std_handles ? err[0] : 0;
    set_reason(reason, strfmt("OSSpawn: fork succeeded, check process id (%d) for errorcode %d for child "
                              "that could not start",
                              pid, kSpawnExecFailed));
    return 1;
}

namespace {

// Runs words[0] with the words as its arguments and the spawn environment.
int spawn_words(std::vector<std::string>& words, const std::string& shown, std::string* reason, int use_std_pipes,
                osspawn_info* pinfo) {
    if (words.empty()) {
        set_reason(reason, "no executable name");
        return 0;
    }
    std::vector<char*> args;
    for (std::string& w : words) args.push_back(w.data());
    args.push_back(nullptr);
    std::vector<std::string> env_copy;
    {
        std::lock_guard<std::mutex> g(g_env_lock);
        env_copy = g_ex_env;
    }
    std::vector<char*> env;
    for (std::string& e : env_copy) env.push_back(e.data());
    env.push_back(nullptr);
    return osspawn_raw(args.data(), shown.c_str(), env_copy.empty() ? environ : env.data(), reason, use_std_pipes,
                       pinfo);
}

}  // namespace

int osspawn_create(const char* quoted_cmds, std::string* reason, int use_std_pipes, osspawn_info* pinfo) {
    std::string cmd(quoted_cmds ? quoted_cmds : "");
    if (cmd.size() > kSpawnCmdMax) cmd.resize(kSpawnCmdMax);
    std::vector<std::string> words = split_blanks(cmd);
    return spawn_words(words, cmd, reason, use_std_pipes, pinfo);
}

int libspawn_create(const char* quoted_cmds, std::string* reason, int use_std_pipes, osspawn_info* pinfo) {
    return osspawn_create(quoted_cmds, reason, use_std_pipes, pinfo);
}

int libspawn_create_args(const char* program, const std::vector<std::string>& args, std::string* reason,
                         int use_std_pipes, osspawn_info* pinfo) {
    std::string shown(program ? program : "");
    std::vector<std::string> words = split_blanks(shown);
    if (words.empty()) {
        set_reason(reason, "no executable name");
        return 0;
    }
    for (const std::string& a : args) {
        words.push_back(a);
        shown += " " + a;
    }
    return spawn_words(words, shown, reason, use_std_pipes, pinfo);
}

int osspawn_is_process_finished(osspawn_info* pinfo, std::string* reason) {
    const int pid = pinfo->pid;
    if (pinfo->reaped) {
        set_reason(reason, strfmt("OSSpawn: Child pid=(%d) exited normally with exitcode: %d.", pid, pinfo->exitcode));
        return 1;
    }
    if (pid <= 0) {
        set_reason(reason, strfmt("OSSpawn: Error checking for pid(%d) %s", pid, "EINVAL"));
        return 0;
    }
    int status = 0;
    int r;
    do {
        r = ::waitpid(pid, &status, WNOHANG | WUNTRACED);
    } while (r < 0 && errno == EINTR);
    if (r == 0) {
        set_reason(reason, strfmt("OSSpawn: Child pid=(%d) still running.", pid));
        return 0;
    }
    if (r < 0 && errno == ECHILD) {
        // Someone else's waitpid (the server's reaper of stray children)
        // collected it first: our child has ended, with its status lost. Its
        // pid is free for reuse, so it must never be signalled again.
        pinfo->reaped = 1;
        pinfo->exitcode = kSpawnAbnormalExit;
        int n = 0;
        osspawn_close_all_pipes(pinfo, &n);
        set_reason(reason, strfmt("OSSpawn: Child pid=(%d) has ended, but return code is unknown (ECHILD).", pid));
        return 1;
    }
    if (r < 0) {
        int e = errno;
        std::string word = e == ECHILD ? "ECHILD" : e == EINVAL ? "EINVAL" : errno_text(e);
        set_reason(reason, strfmt("OSSpawn: Error checking for pid(%d) %s", pid, word.c_str()));
        return 0;
    }
    std::string text;
    if (WIFEXITED(status)) {
        pinfo->exitcode = WEXITSTATUS(status);
        pinfo->reaped = 1;
        text = strfmt("OSSpawn: Child pid=(%d) exited normally with exitcode: %d.", pid, pinfo->exitcode);
    } else {
        pinfo->exitcode = kSpawnAbnormalExit;
        if (WIFSTOPPED(status)) {
            int sig = WSTOPSIG(status);
            text = strfmt("OSSpawn: Child pid=(%d) was stopped with signal %d%s: %s.", pid, sig, "", strsignal(sig));
        } else if (WIFSIGNALED(status)) {
            pinfo->reaped = 1;
            int sig = WTERMSIG(status);
            text = strfmt("OSSpawn: Child pid=(%d) was stopped with signal %d%s: %s.", pid, sig,
                          " which it did not process", strsignal(sig));
        } else {
            pinfo->reaped = 1;
            text = strfmt("OSSpawn: Child pid=(%d) has ended, but return code is unknown (CHILD status %d).", pid,
                          status);
        }
    }
    int n = 0;
    if (!osspawn_close_all_pipes(pinfo, &n))
        text = strfmt("OSSpawn: Child pid=(%d) has ended, but pipes did not close (%d).", pid, n);
    set_reason(reason, std::move(text));
    return 1;
}

int osspawn_close_pipe(int h) { return ::close(h) == 0 ? 1 : 0; }

int osspawn_close_all_pipes(osspawn_info* pinfo, int* n) {
    int failed = 0;
    if (pinfo->use_pipes) {
        for (int* h : {&pinfo->std_input, &pinfo->std_output, &pinfo->std_error}) {
            if (*h <= 0) continue;
            if (osspawn_close_pipe(*h))
                *h = 0;
            else
                ++failed;
        }
    }
    if (n) *n = failed;
    if (failed) return 0;
    pinfo->use_pipes = 0;
    return 1;
}

int osspawn_readpipe(int h, char* bf, int len, std::string* /*reason*/) {
    return static_cast<int>(::read(h, bf, static_cast<size_t>(std::max(len, 0))));
}

int osspawn_writepipe(int h, const char* bf, int len, std::string* reason) {
    // A module that has gone must not end the server: writes to a closed pipe give EPIPE.
    ssize_t r;
    do {
        r = ::write(h, bf, static_cast<size_t>(std::max(len, 0)));
    } while (r < 0 && errno == EINTR);
    if (r < 0) set_reason(reason, strfmt("OSSpawn: Write failed: %s", errno_text(errno).c_str()));
    return static_cast<int>(r);
}

int osspawn_ready_to_read_pipe(int h, int* n_available, std::string* /*reason*/) {
    int n = 0;
    if (::ioctl(h, FIONREAD, &n) != 0) {
        if (n_available) *n_available = 0;
        return 1;  // the read that follows meets the error
    }
    if (n_available) *n_available = n;
    return n > 0 ? 1 : 0;
}

std::string spawn_mygetenv(const char* s) {
    const char* v = s ? std::getenv(s) : nullptr;
    return v ? v : "";
}

void ex_init_env(char** env) {
    std::lock_guard<std::mutex> g(g_env_lock);
    if (!env) {
        g_ex_env.clear();
        return;
    }
    for (char** e = env; *e && g_ex_env.size() <= kSpawnEnvMax - 2; ++e)
        g_ex_env.emplace_back(*e, strnlen(*e, kEnvEntryMax));
}

int ex_init_addenv(const char* label, const char* value) {
    std::lock_guard<std::mutex> g(g_env_lock);
    if (static_cast<int>(g_ex_env.size()) >= kSpawnEnvMax - 1) return 0;
    std::string e = strfmt("%s=%s", label ? label : "", value ? value : "");
    if (e.size() > kEnvEntryMax) e.resize(kEnvEntryMax);
    g_ex_env.push_back(std::move(e));
    return 1;
}

int ex_env_count() {
    std::lock_guard<std::mutex> g(g_env_lock);
    return static_cast<int>(g_ex_env.size());
}

int lib_spawn_addenv(SpawnEnv& env, const char* var, const char* val) {
    std::string e = strfmt("%s=%s", var ? var : "", val ? val : "");
    if (e.size() > kEnvEntryMax) e.resize(kEnvEntryMax);
    return lib_spawn_addenv_real(env, e.c_str());
}

int lib_spawn_addenv_real(SpawnEnv& env, const char* bf) {
    if (!bf) return 0;
    env.emplace_back(bf);
    return 1;
}

int lib_spawn_freeenv(SpawnEnv& env) {
    env.clear();
    return 1;
}

int lib_spawn_setenv(SpawnEnv& env) {
    env.clear();
    return 0;
}

int libspawn_is_process_finished(osspawn_info* pinfo, double waitfor_secs, std::string* reason) {
    if (osspawn_is_process_finished(pinfo, reason)) return 1;
    Deadline dl(waitfor_secs);
    if (dl.left_ms() <= 0 || pinfo->pid <= 0) return 0;
    // The process descriptor becomes readable when the child ends.
    int pfd = pidfd_open_compat(pinfo->pid);
    int step_ms = 10;
    for (;;) {
        int left = dl.left_ms();
        if (left <= 0) break;
        if (pfd >= 0) {
            struct pollfd p{pfd, POLLIN, 0};
            ::poll(&p, 1, left);
        } else {
            ::poll(nullptr, 0, std::min(step_ms, left));  // no process descriptors here: rounds
            step_ms = std::min(step_ms + 10, 100);
        }
        if (osspawn_is_process_finished(pinfo, reason)) {
            if (pfd >= 0) ::close(pfd);
            return 1;
        }
    }
    if (pfd >= 0) ::close(pfd);
    return osspawn_is_process_finished(pinfo, reason);
}

int libspawn_read_timed(int h, char* bf, int len, double waitsecs, std::string* reason) {
    Deadline dl(waitsecs);
    for (;;) {
        int n = 0;
        if (osspawn_ready_to_read_pipe(h, &n, reason)) return osspawn_readpipe(h, bf, len, reason);
        int left = dl.left_ms();
        if (left <= 0) return 0;
        struct pollfd p{h, POLLIN, 0};
        int r = ::poll(&p, 1, left);
        if (r > 0 && (p.revents & POLLHUP) && !osspawn_ready_to_read_pipe(h, &n, reason)) {
            // The writer has gone and nothing is left: the result is 0 once the limit has passed.
            wait_out(dl);
            return 0;
        }
    }
}

int libspawn_ready_to_read_stdout(osspawn_info* p) {
    int n = 0;
    return osspawn_ready_to_read_pipe(p->std_output, &n, nullptr);
}

int libspawn_read_timed_stdout(osspawn_info* p, char* bf, int len, double waitsecs, std::string* reason) {
    return libspawn_read_timed(p->std_output, bf, len, waitsecs, reason);
}

int libspawn_read_timed_stderr(osspawn_info* p, char* bf, int len, double waitsecs, std::string* reason) {
    return libspawn_read_timed(p->std_error, bf, len, waitsecs, reason);
}

int libspawn_write_stdin(osspawn_info* p, const char* bf, int len, std::string* reason) {
    return osspawn_writepipe(p->std_input, bf, len, reason);
}

int libspawn_terminate(osspawn_info* pinfo, double termwait, double killwait, std::string* reason) {
    if (pinfo->pid <= 0) return 1;  // no process: never signal a group
    if (osspawn_is_process_finished(pinfo, nullptr)) return 1;
    const int pid = pinfo->pid;
    if (termwait >= 0.01) {
        if (::kill(pid, SIGTERM) != 0)
            set_reason(reason, strfmt("Process %d could not be signaled to exit, it may have already ended.", pid));
        if (libspawn_is_process_finished(pinfo, 5 * termwait, nullptr)) return 1;
    }
    if (::kill(pid, SIGKILL) != 0)
        set_reason(reason, strfmt("Process %d could not be SIGKILL signaled to exit, it may have already ended.", pid));
    if (osspawn_is_process_finished(pinfo, nullptr)) return 1;
    if (killwait < 0.01) return 0;
    return libspawn_is_process_finished(pinfo, killwait, nullptr);
}

int libspawn_autowaitforend(single_list* processlist, osspawn_info* pinfo, double /*waitfor_secs*/,
                            std::string* reason) {
    if (!processlist) {
        set_reason(reason, "out of memory");
        return 0;
    }
    // Only the process: the pipes stay with the caller.
    osspawn_info copy;
    copy.pid = pinfo->pid;
    copy.exitcode = pinfo->exitcode;
    copy.reaped = pinfo->reaped;
    processlist->items.push_back(copy);
    return 1;
}

namespace {

std::mutex later_mx;
std::vector<int> later_pids;  // under later_mx

}  // namespace

int libspawn_reap_later(osspawn_info* pinfo) {
    if (pinfo == nullptr || pinfo->pid <= 0 || pinfo->reaped) return 1;
    std::lock_guard hold(later_mx);
    later_pids.push_back(pinfo->pid);
    pinfo->reaped = 1;  // from now on the pid is the list's, never signalled by the caller
    return 1;
}

int libspawn_reap_pending() {
    std::lock_guard hold(later_mx);
    for (auto it = later_pids.begin(); it != later_pids.end();) {
        int status = 0;
        pid_t r = ::waitpid(*it, &status, WNOHANG);
        if (r == *it || (r < 0 && errno == ECHILD)) {
            it = later_pids.erase(it);
        } else {
            ++it;
        }
    }
    return static_cast<int>(later_pids.size());
}

int libspawn_waiting(single_list* processlist, SpawnMsgFn msg_fn, void* your_ptr) {
    if (!processlist) return 0;
    auto& items = processlist->items;
    for (auto it = items.begin(); it != items.end();) {
        std::string reason;
        if (osspawn_is_process_finished(&*it, &reason)) {
            if (msg_fn) msg_fn(it->pid, it->exitcode, reason.c_str(), your_ptr);
            it = items.erase(it);
        } else {
            ++it;
        }
    }
    return static_cast<int>(items.size());
}

int libspawn_terminate_all(single_list* processlist) {
    if (!processlist) return 1;
    auto& items = processlist->items;
    items.erase(std::remove_if(items.begin(), items.end(),
                               [](osspawn_info& p) { return libspawn_terminate(&p, 0, 0.5, nullptr) == 1; }),
                items.end());
    return items.empty() ? 1 : 0;
}

}  // namespace korv
