// The idle tick, the signal table and the Self Diagnostic thread.
#include "server/process/idle.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "common/mutex.h"
#include "net/spawn.h"
#include "server/auth/auth_setups.h"
#include "server/auth/mex_auths.h"
#include "server/ftp/daily.h"
#include "server/ftp/plog.h"
#include "server/process/control.h"
#include "server/process/watch.h"
#include "server/settings/ini.h"
#include "server/vfs/home.h"
#include "server/vfs/vdir_path.h"
#include "store/vini.h"

#if defined(__SANITIZE_ADDRESS__)
#define KORV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORV_SANITIZED 1
#endif
#endif

namespace korv {

namespace {

constexpr int kSelfCheckStepMs = 10;

struct SigRow {
    const char* word = nullptr;
    SignalFn handler = nullptr;
};
SigRow sig_table[NSIG];
std::atomic<bool> signal_done_init{false};
int sig_pipe[2] = {-1, -1};

time_t last_files = 0;
time_t last_day_check = 0;
int remembered_mday = -1;

std::mutex self_mx;
std::condition_variable self_cv;

void sig_trampoline(int sig) {
    if (sig <= 0 || sig >= NSIG || sig_table[sig].handler == nullptr) return;
    const char* word = sig_table[sig].word;
    if (strcmp(word, "IGNORE") == 0) return;
    if (strcmp(word, "CRASH") == 0) {
        sig_table[sig].handler(sig, word, get_signal_name_string(sig));
        return;
    }
    // Everything else runs on the main thread: only the byte is written here.
    int saved = errno;
    unsigned char b = static_cast<unsigned char>(sig);
    ssize_t r = write(sig_pipe[1], &b, 1);
    (void)r;
    errno = saved;
}

bool is_sanitized() {
#ifdef KORV_SANITIZED
    return true;
#else
    return false;
#endif
}

// The last time the Self Diagnostic thread got both loop locks; 0 before it starts.
std::atomic<time_t> self_loop_last{0};
// A Self Diagnostic pass older than this means a stuck loop: the service
// manager is no longer told that the server lives.
constexpr time_t kSelfLoopStaleSeconds = 10;

}  // namespace

int korv_idle(process_data* main_process_info) {
    plog_flush_all();
    // Modules with no session waiting on them (a reply after its waiter gave
    // up, a module to respawn) are serviced here.
    mex_poll();
    time_t now = time(nullptr);
    if (now - last_files > kIdleFileCheckSeconds) {
        last_files = now;
        const time_t seen = self_loop_last.load();
        if (seen == 0 || now - seen < kSelfLoopStaleSeconds) korv_notify("WATCHDOG=1");
        int only_unix = ini_true(nullptr, INI_GLOBAL_ONLY_UNIX);
        vdir_only_unix_slash(only_unix);
        home_only_unix_slash(only_unix);
        user_set_ntdomain(ini_get(nullptr, INI_GLOBAL_NT_DOMAIN));
        std::string f = bin_file(".restart");
        if (file_exists(f.c_str())) korvane_restart(strfmt("Found %s", f.c_str()).c_str());
        f = bin_file(".exit");
        if (file_exists(f.c_str())) korvane_shutdown(strfmt("Found %s", f.c_str()).c_str());
        f = bin_file(".reload");
        if (file_exists(f.c_str())) {
            imsg("Found %s, so reloading config file\n", f.c_str());
            vini_reload();
            remove(f.c_str());
        }
        libspawn_reap_pending();
        if (main_process_info != nullptr && !main_process_info->items.empty())
            libspawn_waiting(main_process_info,
                             [](int pid, int code, const char* msg, void* p) { lost_child_process(pid, code, msg, p); },
                             nullptr);
        emsg_flush();
    }
    if (now - last_day_check >= kIdleDaySeconds) {
        last_day_check = now;
        per_username_settings_idle(now);
        struct tm tmv {};
        localtime_r(&now, &tmv);
        if (remembered_mday < 0) {
            remembered_mday = tmv.tm_mday;
        } else if (remembered_mday != tmv.tm_mday) {
            remembered_mday = tmv.tm_mday;
            xlog_rotate_all();
            day_free();
        }
    }
    return 1;
}

const char* get_signal_name_string(int sig) {
    const char* s = sigabbrev_np(sig);
    return s != nullptr ? s : "UNKNOWN";
}

void set_signal_handler(int sig, const char* word, SignalFn handler) {
    if (sig <= 0 || sig >= NSIG) return;
    sig_table[sig].word = word;
    sig_table[sig].handler = handler;
    struct sigaction sa {};
    sa.sa_handler = sig_trampoline;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(sig, &sa, nullptr);
}

void sig_init() {
    if (signal_done_init.exchange(true)) return;
    if (pipe2(sig_pipe, O_CLOEXEC | O_NONBLOCK) != 0) emsg("Signal pipe failed %s\n", strerror(errno));
    // Under the sanitizers their own reports of a fault are worth more than ours.
    const bool crash = !is_sanitized();
    set_signal_handler(SIGABRT, "IGNORE", ignore_signal_x);
    set_signal_handler(SIGFPE, "IGNORE", ignore_signal_x);
    set_signal_handler(SIGPIPE, "IGNORE", ignore_signal_x);
    set_signal_handler(SIGVTALRM, "IGNORE", ignore_signal_x);
    if (crash) set_signal_handler(SIGBUS, "CRASH", handle_signal_x);
    set_signal_handler(SIGTERM, "FASTQUIT!", handle_signal_x);
    set_signal_handler(SIGTERM, "SIGKILL", handle_signal_x);
    set_signal_handler(SIGABRT, "IGNORE", ignore_signal_x);
    if (crash) {
        set_signal_handler(SIGTRAP, "CRASH", handle_signal_x);
        set_signal_handler(SIGILL, "CRASH", handle_signal_x);
        set_signal_handler(SIGSEGV, "CRASH", handle_signal_x);
        set_signal_handler(SIGSTKFLT, "CRASH", handle_signal_x);
    }
    set_signal_handler(SIGHUP, "RELOAD", handle_signal_x);
    set_signal_handler(SIGURG, "IGNORE", ignore_signal_x);
    if (crash) {
        set_signal_handler(SIGXFSZ, "CRASH", handle_signal_x);
        set_signal_handler(SIGSYS, "CRASH", handle_signal_x);
        set_signal_handler(SIGPWR, "CRASH", handle_signal_x);
    }
    set_signal_handler(SIGCHLD, "IGNORE", ignore_signal_x);
    set_signal_handler(SIGINT, "QUIT", handle_signal_x);
    set_signal_handler(SIGQUIT, "QUIT", handle_signal_x);
}

int sig_pipe_fd() { return sig_pipe[0]; }

int sig_dispatch_pending(void*) {
    unsigned char b[64];
    ssize_t n;
    while ((n = read(sig_pipe[0], b, sizeof b)) > 0) {
        for (ssize_t i = 0; i < n; ++i) {
            int sig = b[i];
            if (sig > 0 && sig < NSIG && sig_table[sig].handler != nullptr)
                sig_table[sig].handler(sig, sig_table[sig].word, get_signal_name_string(sig));
        }
    }
    return 1;
}

int ignore_signal_x(int, const char*, const char*) { return 1; }

int handle_signal_x(int x, const char* user_str, const char* description) {
    std::string word = user_str != nullptr ? user_str : "";
    if (word == "IGNORE") return 1;
    if (x == 1 || word == "RELOAD") {
        vini_reload();
        return 1;
    }
    if (word == "QUIT") {
        std::string text = strfmt("QUIT Signal Received: %s", description);
        log_startstop("%s", text.c_str());
        korvane_shutdown(text.c_str());
        return 1;
    }
    if (x == 15 || word == "FASTQUIT!") {
        log_startstop("SIGTERM received %s\n", description);
        korvane_shutdown("Signal Terminate");
        return 1;
    }
    if (x == 9 || word == "SIGKILL") {
        log_startstop("SIGKILL received %s\n", description);
        emsg_disable_mutex(1);
        korvane_unsafe_restart(1);
        korvane_shutdown("asap! - Signal Kill");
        emsg_flush();
        exit(0);
    }
    emsg_disable_mutex(1);
    korvane_unsafe_restart(1);
    imsg("Korvane process going down, signal: %d - %s\n", x, description);
    emsg_flush();
    log_startstop("Aborting %d (%s) (%s)\n", x, user_str, description);
    abort();
}

int lost_child_process(int pid, int errcode, const char* message, void*) {
    imsg("process ended, pid=%d, error(%s) message: %s", pid, errtext(errcode).c_str(), message != nullptr ? message : "");
    return 1;
}

void self_loop_wake() { self_cv.notify_all(); }

int self_loop_checking(void*) {
    auto step = [] {
        std::unique_lock<std::mutex> lk(self_mx);
        self_cv.wait_for(lk, std::chrono::milliseconds(kSelfCheckStepMs),
                         [] { return shutdown_now.load() != 0 || restart_ftp_now.load() != 0; });
    };
    while (shutdown_now.load() == 0 && restart_ftp_now.load() == 0) {
        step();
        if (shutdown_now.load()) break;
        mutex_wait(MUTEX_CHECK_LOOP);
        mutex_release(MUTEX_CHECK_LOOP);
        if (shutdown_now.load()) break;
        step();
        mutex_wait(MUTEX_LOOP);
        mutex_release(MUTEX_LOOP);
        self_loop_last.store(time(nullptr));
    }
    return 1;
}

}  // namespace korv
