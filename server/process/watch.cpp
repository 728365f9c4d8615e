// The monitor hooks, the service manager's notify socket and the test-only
// lock limit.
#include "server/process/watch.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "common/mutex.h"

namespace korv {

namespace {

std::atomic<MonitorFn> run_fn{nullptr};
std::atomic<MonitorFn> detach_fn{nullptr};

}  // namespace

void korv_set_monitor(MonitorFn run, MonitorFn detach) {
    run_fn.store(run);
    detach_fn.store(detach);
}

int korv_monitor_run(const MonitorStart& m) {
    MonitorFn f = run_fn.load();
    return f != nullptr ? f(m) : 0;
}

int korv_monitor_detach(const MonitorStart& m) {
    MonitorFn f = detach_fn.load();
    return f != nullptr ? f(m) : 0;
}

int korv_notify(const char* state) {
    const char* path = getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@') || state == nullptr) return 0;
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    const size_t len = strlen(path);
    if (len >= sizeof addr.sun_path) return 0;
    memcpy(addr.sun_path, path, len);
    if (path[0] == '@') addr.sun_path[0] = 0;  // an abstract name
    const socklen_t alen = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + len);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    ssize_t n = sendto(fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<struct sockaddr*>(&addr), alen);
    close(fd);
    return n == static_cast<ssize_t>(strlen(state)) ? 1 : 0;
}

int korv_test_lock_limit() {
    const char* v = getenv("KORV_TEST_LOCK_SECONDS");
    int s = v != nullptr ? atoi(v) : 0;
    if (s <= 0) return 0;
    mutex_set_timeout(s);
    return s;
}

}  // namespace korv
