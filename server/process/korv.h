// The server's spine: main in its start-up order and the internal restart,
// the two accept loops (FTP on its own thread, the web ports on the main
// thread), binding the listening ports, handing each accepted connection to
// a pooled thread, and the run flags that stop, restart or re-bind the loops.
#pragma once

#include <atomic>
#include <ctime>

#include "net/libtcp.h"
#include "net/spawn.h"
#include "server/session/runstate.h"
#include "server/session/threadlist.h"

namespace korv {


using process_data = single_list;  // the children reaped by the idle tick
struct LINK;


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

// The routine each admin connection runs on a thread of its own (with the
// LINK as argument; the thread registry frees the LINK after it). The
// program's entry installs it: the admin layer sits above this one. Without
// one, admin connections get a one-line refusal.
void korv_set_admin_handler(AccountFn fn);
inline constexpr size_t kAdminStackBytes = 4 * 1024 * 1024;  // the page engine nests includes
// The admin threads' stack: kAdminStackBytes, or more when the sessions' own
// stacks were enlarged (sanitizer builds).
size_t korv_admin_stack_bytes();

// Background work of the upper layers (the report and mirror threads): each
// `start` runs at every start and internal restart once the settings, the
// logs, TLS and the home are ready; each `stop` (may be null) at the
// teardown. The program's entry installs them before korv_main runs.
using KorvHookFn = void (*)();
void korv_add_background(KorvHookFn start, KorvHookFn stop);

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
