// The server's version and its run flags: set by the process that starts,
// stops and restarts the service, polled by the loops and the sessions.
#pragma once

#include <atomic>
#include <cstddef>
#include <ctime>

namespace korv {

inline constexpr char KORV_VERSION[] = "0.1.0";
inline constexpr size_t kSessionStackBytes = 256 * 1024;  // stack of each pooled thread

// Run flags, polled by the loops at every pass.
extern std::atomic<int> ftp_port_active;
extern std::atomic<int> start_or_stop_ftp_port;
extern std::atomic<int> shutdown_now;
extern std::atomic<int> restart_ftp_now;
extern std::atomic<int> korvane_unsafe;
extern std::atomic<int> exit_due_to_shutdown_now;
extern std::atomic<int> donewthreadmutexcrash;
extern time_t start_time;

}  // namespace korv
