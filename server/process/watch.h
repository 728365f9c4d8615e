// What ties the server to its watchers: the monitor process, whose code the
// entry installs (it sits above this layer), and the service manager, told
// of readiness, stopping and liveness through its notify socket.
#pragma once

#include <string>

namespace korv {

// Everything a monitor needs to start or to run.
struct MonitorStart {
    std::string prog;     // the program's own path
    std::string config;   // the configuration's absolute path
    int pid = 0;          // the server watched
    std::string smtp, manager, ip_to_scan;
    int isrestart = 0;
    int port = 0;         // the FTP port probed
    std::string logname;  // the monitor's own log
    std::string mainlog;  // the server's main log
};
using MonitorFn = int (*)(const MonitorStart& m);
// run: the monitor's main loop (this process is the monitor). detach: start
// a monitor for this server. Without them no monitor runs.
void korv_set_monitor(MonitorFn run, MonitorFn detach);
int korv_monitor_run(const MonitorStart& m);
int korv_monitor_detach(const MonitorStart& m);

// A monitor.pid younger than this stands for a monitor that is alive.
constexpr int kMonitorPidFreshSeconds = 121;

// One datagram to $NOTIFY_SOCKET ("READY=1", "STOPPING=1", "WATCHDOG=1");
// nothing without the variable. 1 when sent.
int korv_notify(const char* state);

// Tests only: KORV_TEST_LOCK_SECONDS shortens the lock limit so that a
// provoked deadlock ends within a test's time. Returns the limit set, or 0.
int korv_test_lock_limit();

}  // namespace korv
