// The server's spine: main in its start-up order and the internal restart,
// the two accept loops (FTP on its own thread, the web ports on the main
// thread), binding the listening ports, handing each accepted connection to
// a pooled thread, and the run flags that stop, restart or re-bind the loops.
#pragma once

#include <atomic>
#include <ctime>

#include "net/libtcp.h"
#include "net/spawn.h"

namespace korv {

inline constexpr char KORV_VERSION[] = "0.1.0";
inline constexpr size_t kSessionStackBytes = 256 * 1024;  // stack of each pooled thread

using process_data = single_list;  // the children reaped by the idle tick
struct LINK;

// Run flags, polled by the loops at every pass.
extern std::atomic<int> ftp_port_active;
extern std::atomic<int> start_or_stop_ftp_port;
extern std::atomic<int> shutdown_now;
extern std::atomic<int> restart_ftp_now;
extern std::atomic<int> korvane_unsafe;
extern std::atomic<int> exit_due_to_shutdown_now;
extern std::atomic<int> donewthreadmutexcrash;
extern time_t start_time;

// The ports in use after the settings were read.
int korv_ftp_port();
int korv_mgr_port();
int korv_mgr_ssl_port();

// The whole program: returns 0 on every normal path.
int korv_main(int argc, char** argv);

int start_korv_main(process_data* main_process_info, int* started_up_self_loop_checking);
int threaded_listen_accept_handler(void* p);
int listen_accept_handler(process_data* main_process_info, int* started_up_self_loop_checking, int do_ftp_channels);
// Opens one listening socket and adds it to `clist`. `tmp` receives an error text.
int bind_add_address(const char* connection_type, Chan_List** clist, WaitFn function, void* parameter, int autossl,
                     const char* ipadress, int port, int reuse, std::string& tmp);
int try_accept_connection_no_threads(Chan_List* itm);

// Session routines carried by a listener node.
using SessionFn = int (*)(LINK* l);

int korv_is_ftp_active();
int korv_startftp(const char* reason);
int korv_stopftp(const char* reason);
int korvane_shutdown(const char* reason);
int korvane_restart(const char* reason);
void korvane_unsafe_restart(int x);

// Wakes both accept loops at once (a flag changed, a signal arrived).
void korv_wake_loops();

// CPU time of the process in ms, refreshed by the main loop.
int korv_main_cpu_msec();
// The main loop's state text for crash reports.
const char* korv_main_status();

}  // namespace korv
