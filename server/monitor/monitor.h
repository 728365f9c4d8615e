// The watchdog: a detached copy of the program started with -monitor that
// probes the server's FTP port from outside, and when no greeting comes,
// saves the evidence in a numbered crash record, restarts the server and
// mails the manager. It meets the server only through files in the home:
// monitor.pid (the newest monitor owns it), mon.exit (stop), and the
// server's pid file (its presence turns the checks on).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "net/spawn.h"
#include "net/tcp.h"

namespace korv {

constexpr int kMonitorCheckSeconds = 30;    // rounds of one second between checks
constexpr int kMonitorStartRounds = 10;     // one-second rounds after writing monitor.pid
constexpr int kMonitorTries = 3;            // failed probes before the server counts as down
constexpr int kMonitorProbeWaitMs = 5000;   // for the connect and for the greeting line
constexpr int kMonitorGreetingMax = 999;    // one greeting line is read, at most this long
constexpr double kMonitorDetachWait = 0.5;  // a monitor that dies at once is reported
constexpr double kMonitorRestartWait = 4.0; // a restarted server that dies at once is reported
constexpr int kMonitorMailPauseMs = 5000;   // after a restart, before the mail
constexpr int kCrashFilesMax = 9;           // crash1.log .. crash9.log, and one gap after the newest
constexpr int kCrashTailBytes = 30000;      // of each file in a crash record
constexpr int kCrashCopyMax = 100000;       // bytes copied of one file at most
constexpr int kMonitorMailsMax = 100;       // mails sent by one monitor at most
constexpr int kMonitorMailTailBytes = 10000;  // of each log in the mail
constexpr int kSmtpDefaultPort = 25;

// Module state: the port probed when an address names none (25 until set),
// the version and program name shown in records and mail, the monitor's own
// log and the server's main log, and the configuration handed on to every
// program started (empty: the program's default).
void monitor_setport(int port);
void monitor_setver(const char* ver);
void monitor_setname(const char* name);
void monitor_set_log(const char* logname, const char* mainlog);
void monitor_set_config(const char* config);

// Called by the server: starts the monitor "%.200s -monitor %d -smtp %s
// -manager %s -ip_to_scan %s%s" (with -config when one is set). Empty smtp
// and IP_to_scan become 127.0.0.1, an empty manager root@localhost. 1 when it
// runs after half a second.
int monitor_detach(const char* prog, const char* smtp, const char* manager, const char* IP_to_scan, int isrestart,
                   single_list** sp_list);

// The monitor's main loop; returns when mon.exit appears or a newer monitor
// owns monitor.pid.
int monitor_run(const char* prog, int pid, const char* smtp, const char* manager, const char* mon_ips_scan,
                int isrestart);

// One place to probe: an address and a port.
struct MonitorTarget {
    std::string host;
    int port = 0;
};
// The comma list of -ip_to_scan: "host", "host:port", or a bare number of
// under four digits standing for that port on 127.0.0.1. Blank entries are
// skipped; an empty list is 127.0.0.1.
std::vector<MonitorTarget> monitor_targets(const std::string& mon_ips_scan, int testport);

// 1 when every address answers (three tries each, given up at once when the
// server's pid file goes: it is being stopped on purpose).
int monitor_open(const char* mon_ips_scan);
// One probe: connect and read one line. 1 when a line came.
int check_host_connection(const MonitorTarget& host, int ntry, std::string& response, std::string& reason);
// A check and, when it fails, the crash record, the restart and the mail.
int monitor_openrestart(const char* mon_ips_scan, const char* prog, const char* smtp, const char* manager,
                        single_list** sp_list);
int monitor_restart(const char* prog, single_list** sp_list);
int monitor_restart_retry(const char* prog, int retry, single_list** sp_list);

// Writes the next crash%d.log in the working directory (see crashrec.cpp);
// the name written, or empty when it could not be created.
std::string crash_record(const char* fname);
// The last kCrashTailBytes of a file, from its first whole line, with a heading.
int crash_append_file(FILE* fout, const char* xname);

// The mail to the manager, through the relay `smtp` ("host" or "host:port").
int monitor_email(const char* smtp, const char* manager);
// The lines of the last `len` bytes of a file (from a whole line), each
// ending CR LF, dot-stuffed.
int monitor_add_file(Chan* c, const char* fname, int len);
// How many mails went out (and were refused by the limit) in this process.
int monitor_emails_sent();

int monitor_write_pid();
int monitor_pid_matches();

// The name of the server's pid file ("<name>.pid"), whose presence turns the checks on.
std::string monitor_monpid();

}  // namespace korv
