// The diagnostic commands, which provoke the faults the lock watchdog and
// the monitor exist for: held locks, a crash, descriptor and allocator
// exhaustion. They act only when the server was started with -debug;
// otherwise the request gets the normal page.
#include <cstdio>
#include <string_view>

#include "base/dalloc.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "server/admin/webadmin.h"
#include "server/process/control.h"
#include "server/session/runstate.h"

namespace korv {

namespace {

constexpr int kLockCheckLoop = 36;
constexpr int kLockLoop = 30;
constexpr int kLockLockup = 2;
constexpr int kOpenMore = 925;
constexpr int kCrashAllocs = 500000;
constexpr size_t kCrashAllocBytes = 10;

constexpr std::string_view kDiag[] = {"mutex_check_loop", "mutex_loop", "cmd_newthreadmutexcrash", "openmore",
                                      "lockup_now",       "crash_now",  "crash_dmalloc",           "dmalloc"};

// Taken and never given back: the waiters that follow run into the limit.
void hold_forever(int lock) { mutex_wait_debug(lock, __FILE__, __LINE__); }

}  // namespace

int mgr_is_diag(std::string_view cmd) {
    for (std::string_view d : kDiag)
        if (cmd == d) return 1;
    return 0;
}

int mgr_cmd_diag(WINK* w, std::string_view cmd) {
    if (!korv_opts.debug) return mgr_cmd_domain(w);
    emsg("Web diagnostic command %.*s\n", static_cast<int>(cmd.size()), cmd.data());
    web_var_add(w, "server_message", std::string("Diagnostic command ") + std::string(cmd) + " run.");
    if (cmd == "mutex_check_loop") {
        hold_forever(kLockCheckLoop);
    } else if (cmd == "mutex_loop") {
        hold_forever(kLockLoop);
    } else if (cmd == "lockup_now") {
        hold_forever(kLockLockup);
    } else if (cmd == "cmd_newthreadmutexcrash") {
        donewthreadmutexcrash.store(1);
    } else if (cmd == "openmore") {
        // The handles are kept on purpose: the point is to run out of them.
        for (int i = 0; i < kOpenMore; ++i)
            if (fopen("a.a_write", "a") == nullptr) break;
    } else if (cmd == "crash_now") {
        volatile int* nowhere = nullptr;
        *nowhere = 1;
    } else if (cmd == "crash_dmalloc") {
        for (int i = 0; i < kCrashAllocs; ++i) (void)d_malloc(kCrashAllocBytes);
    } else if (cmd == "dmalloc") {
        d_check();
    }
    return mgr_cmd_domain(w);
}

}  // namespace korv
