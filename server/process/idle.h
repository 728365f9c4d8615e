// The idle tick of the main loop (log flushes, control files, child reaping,
// the daily roll), the table of signals and what each one does, and the Self
// Diagnostic thread that turns a stuck accept loop into a crash.
#pragma once

#include "server/process/korv.h"

namespace korv {

constexpr int kIdleFileCheckSeconds = 2;  // control files are looked for this often
constexpr int kIdleDaySeconds = 61;       // the day is compared this often

int korv_idle(process_data* main_process_info);

// Signals. Fatal ones act in the handler; the others are passed through a
// pipe to the main loop, which calls handle_signal_x on its own thread.
void sig_init();
using SignalFn = int (*)(int x, const char* user_str, const char* description);
void set_signal_handler(int sig, const char* word, SignalFn handler);
const char* get_signal_name_string(int sig);
int handle_signal_x(int x, const char* user_str, const char* description);
int ignore_signal_x(int x, const char* user_str, const char* description);
// The read end of the pipe of caught signals (for the main loop's wait), and
// the routine that acts on what is in it; both for the main loop.
int sig_pipe_fd();
int sig_dispatch_pending(void* unused);

int lost_child_process(int pid, int errcode, const char* message, void* my_ptr);

// The Self Diagnostic thread's body.
int self_loop_checking(void* p);
// Wakes the Self Diagnostic thread so that it sees a run flag at once.
void self_loop_wake();

}  // namespace korv
