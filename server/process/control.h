// Process control: the command line, the server's home and log home, the
// control files in the home (pid, exit, restart, reload), the start-stop log,
// the crash copy of the main log, and detaching from the terminal.
#pragma once

#include <cstdio>
#include <string>

namespace korv {

constexpr int kCrashCopyBytes = 500000;  // tail of the main log kept by an unclean end
constexpr int kMonFieldMax = 100;        // -smtp, -manager, -ip_to_scan are cut here

// What the command line asked for.
struct KORV_OPTIONS {
    int port = 21;
    int mon_pid = 0;
    std::string mon_smtp;
    std::string mon_manager;
    std::string mon_ip_scan;
    int mon_restart = 0;  // -restart: the monitor checks the server and restarts it
    int nothreads = 0;
    int debug = 0;
    int nodetach = 0;
    int stopit = 0;
    std::string config;  // -config FILE; empty means /etc/korvane.ini
    int password = 0;        // -password: set the admin password and leave
    std::string admin_user;  // -user NAME: whose password; empty means "admin"
    int leave = 0;       // an option did its work, or the line was wrong: main returns at once
    int status = 0;      // what main returns then: 0, or 2 for a wrong command line
};
using KorvOptions = KORV_OPTIONS;

extern KorvOptions korv_opts;

// Walks the arguments from argv[1] in order into `o`. -help (--help, -h)
// prints the usage on standard output and leaves with 0; an unknown option,
// or one without its value, prints it on standard error and leaves with 2.
void korv_parse_args(int argc, char** argv, KorvOptions& o);
// Every option, one a line.
void korv_usage(FILE* out);

// The stem of the control files ("korvane"), set at each start.
void korv_set_bin_name(const char* name);
const char* korv_bin_name();

const char* korv_home();
const char* korv_log_home();
void korv_set_home(const char* s);
void korv_set_log_home(const char* s);

// "<bin_name><ext>", relative to the home (the working directory).
std::string& bin_file(const char* ext, std::string& tmp);
std::string bin_file(const char* ext);
// "%.500s/%.500s" of the home and fname.
std::string& file_work(const char* fname, std::string& tmp);
int file_touch(const char* file);  // 1, or -1 if it cannot be opened
int file_exists(const char* file);
int get_pid_from_file(const char* filename);  // the first line's number; 0 if unreadable
int is_korvane_pid_this_server();
int is_monitor_pid_for_this_server(int mon_pid);
// The base name of `filename` placed in the log home when one is set.
void get_log_file_path(std::string& output, const char* filename);
// Copies about the last `want` bytes of inname, from a line start. 1 or 0.
int lib_tail_file(const char* inname, const char* outname, int want, int append);

// One stamped line in startstop.log in the home.
void log_startstop(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_startstop_text(const char* text);  // the same for a ready text (the lock layer's hook)

// Leaves the terminal: fork (the parent exits), setsid, and the three standard
// streams reopened on /dev/null (never closed: child programs rely on them).
int lib_detach();

// Raises the soft limit of open descriptors to the hard one.
void korv_raise_fd_limit();

}  // namespace korv
