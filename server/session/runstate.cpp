// The run flags.
#include "server/session/runstate.h"

namespace korv {

std::atomic<int> ftp_port_active{1};
std::atomic<int> start_or_stop_ftp_port{0};
std::atomic<int> shutdown_now{0};
std::atomic<int> restart_ftp_now{0};
std::atomic<int> korvane_unsafe{0};
std::atomic<int> exit_due_to_shutdown_now{0};
std::atomic<int> donewthreadmutexcrash{0};
time_t start_time = 0;

}  // namespace korv
