// The monitor process: started detached by the server, it writes
// monitor.pid, probes the FTP port every half minute while the server's pid
// file exists, and on three failed probes keeps the evidence, ends what is
// left of the server, starts a new one and mails the manager. It ends on
// mon.exit, or when a newer monitor has written monitor.pid.
#include "server/monitor/monitor.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "server/monitor/monstate.h"

namespace korv {

namespace {

constexpr char kPidFile[] = "monitor.pid";
constexpr char kExitFile[] = "mon.exit";
constexpr int kProgShown = 200;    // of the program's path in the logged command line
constexpr int kKillWaitRounds = 50;  // of 100 ms, for a hung server to go after SIGKILL
constexpr int kRestartTries = 3;

bool exists(const char* f) {
    struct stat st {};
    return stat(f, &st) == 0;
}

void sleep_ms(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

int pid_in(const char* file) {
    FILE* f = fopen(file, "r");
    if (f == nullptr) return 0;
    char line[64] = {0};
    int pid = fgets(line, sizeof line, f) != nullptr ? atoi(line) : 0;
    fclose(f);
    return pid;
}

// Alive and not a zombie waiting for its parent (which holds no ports).
bool alive(int pid) {
    if (pid <= 0 || kill(pid, 0) != 0) return false;
    FILE* f = fopen(strfmt("/proc/%d/stat", pid).c_str(), "r");
    if (f == nullptr) return true;
    char buf[512] = {0};
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    buf[n] = 0;
    const char* close_paren = strrchr(buf, ')');
    return close_paren == nullptr || close_paren[1] == 0 || close_paren[2] != 'Z';
}

// The arguments after the program: the configuration first, when there is one.
std::vector<std::string> config_args() {
    const std::string& cfg = monitor_state().config;
    if (cfg.empty()) return {};
    return {"-config", cfg};
}

std::string shown(const char* prog, const std::vector<std::string>& args) {
    std::string s = strfmt("%.*s", kProgShown, prog);
    for (const std::string& a : args) s += " " + a;
    return s;
}

// A server that still runs but does not answer holds the ports the new one needs.
void end_hung_server() {
    int pid = pid_in(monitor_monpid().c_str());
    if (pid <= 0 || pid == getpid() || !alive(pid)) return;
    emsg("Ending the server that does not answer, pid %d\n", pid);
    kill(pid, SIGKILL);
    for (int i = 0; i < kKillWaitRounds && alive(pid); ++i) sleep_ms(100);
}

}  // namespace

bool monitor_connect(Chan* c, const std::string& host, int port, int msecs, std::string& reason) {
    if (port <= 0 || port > 65535) {
        reason = "no port";
        return false;
    }
    if (!tcp_open_timed(c, host.c_str(), static_cast<unsigned short>(port), nullptr, msecs)) {
        reason = tcp_error(c);
        return false;
    }
    int err = 0;
    socklen_t len = sizeof err;
    struct sockaddr_storage peer {};
    socklen_t plen = sizeof peer;
    const int fd = tcp_get_sockethandle(c);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err == 0 && getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &plen) != 0) err = errno;
    if (err != 0) {
        reason = errtext(err);
        tcp_close(c);
        return false;
    }
    return true;
}

MonitorState& monitor_state() {
    static MonitorState st;
    return st;
}

void monitor_setport(int port) { monitor_state().testport = port; }
void monitor_setver(const char* ver) { monitor_state().progver = ver != nullptr ? ver : ""; }
void monitor_setname(const char* name) { monitor_state().progname = name != nullptr ? name : ""; }
void monitor_set_log(const char* logname, const char* mainlog) {
    if (logname != nullptr && *logname) monitor_state().logname = logname;
    if (mainlog != nullptr && *mainlog) monitor_state().mainlog = mainlog;
}
void monitor_set_config(const char* config) { monitor_state().config = config != nullptr ? config : ""; }

std::string monitor_monpid() { return monitor_state().progname + ".pid"; }

int monitor_write_pid() {
    FILE* f = fopen(kPidFile, "w");
    if (f == nullptr) {
        emsg("Could not write %s: %s\n", kPidFile, errtext(errno).c_str());
        return 0;
    }
    fprintf(f, "%d\n", static_cast<int>(getpid()));
    fclose(f);
    return 1;
}

int monitor_pid_matches() {
    if (!exists(kPidFile)) {
        imsg("No monitor.pid closing monitor\n");
        return 0;
    }
    return pid_in(kPidFile) == static_cast<int>(getpid()) ? 1 : 0;
}

int monitor_detach(const char* prog, const char* smtp, const char* manager, const char* IP_to_scan, int isrestart,
                   single_list** sp_list) {
    const char* s = smtp != nullptr && *smtp ? smtp : "127.0.0.1";
    const char* m = manager != nullptr && *manager ? manager : "root@localhost";
    const char* ip = IP_to_scan != nullptr && *IP_to_scan ? IP_to_scan : "127.0.0.1";
    std::vector<std::string> args = config_args();
    args.push_back("-monitor");
    args.push_back(strfmt("%d", static_cast<int>(getpid())));
    args.insert(args.end(), {"-smtp", s, "-manager", m, "-ip_to_scan", ip});
    if (isrestart) args.push_back("-restart");
    const std::string line = shown(prog, args);
    osspawn_info info;
    std::string reason;
    if (!libspawn_create_args(prog, args, &reason, 0, &info)) {
        emsg("Unable to detach Monitor program (%s) (%s)\n", line.c_str(), reason.c_str());
        return 0;
    }
    if (libspawn_is_process_finished(&info, kMonitorDetachWait, &reason)) {
        emsg("server program {%s} self terminated:%s\n", line.c_str(), reason.c_str());
        return 0;
    }
    imsg("Detached monitor (%s)\n", line.c_str());
    // Without a list the monitor is reaped by pid later: a list of children
    // is ended with the server's teardown, and the monitor must outlive it.
    if (sp_list == nullptr || *sp_list == nullptr) {
        libspawn_reap_later(&info);
    } else if (!libspawn_autowaitforend(*sp_list, &info, 0, &reason)) {
        emsg("Unable to store program link {%s} error:%s\n", line.c_str(), reason.c_str());
        libspawn_reap_later(&info);
    }
    return 1;
}

std::vector<MonitorTarget> monitor_targets(const std::string& mon_ips_scan, int testport) {
    std::vector<MonitorTarget> out;
    size_t from = 0;
    while (from <= mon_ips_scan.size()) {
        size_t comma = mon_ips_scan.find(',', from);
        if (comma == std::string::npos) comma = mon_ips_scan.size();
        std::string e = mon_ips_scan.substr(from, comma - from);
        from = comma + 1;
        while (!e.empty() && (e.front() == ' ' || e.front() == '\t')) e.erase(e.begin());
        while (!e.empty() && (e.back() == ' ' || e.back() == '\t')) e.pop_back();
        if (e.empty()) continue;
        MonitorTarget t{e, testport};
        if (e.size() < 4 && e.find('.') == std::string::npos && strspn(e.c_str(), "0123456789") == e.size() &&
            atoi(e.c_str()) > 0) {
            t = {"127.0.0.1", atoi(e.c_str())};
        } else if (size_t colon = e.rfind(':'); colon != std::string::npos && e.find(':') == colon) {
            t = {e.substr(0, colon), atoi(e.c_str() + colon + 1)};
        }
        out.push_back(t);
    }
    if (out.empty()) out.push_back({"127.0.0.1", testport});
    return out;
}

int check_host_connection(const MonitorTarget& host, int ntry, std::string& response, std::string& reason) {
    response.clear();
    ChanPtr c = tcp_new_owned();
    if (!monitor_connect(c.get(), host.host, host.port, kMonitorProbeWaitMs, reason)) return 0;
    // One line; its content is not looked at, only that the server speaks.
    char buf[kMonitorGreetingMax + 1];
    while (static_cast<int>(response.size()) < kMonitorGreetingMax) {
        int r = tcp_read_timed(c.get(), buf, kMonitorGreetingMax - static_cast<int>(response.size()),
                               kMonitorProbeWaitMs);
        if (r < 1) break;
        response.append(buf, static_cast<size_t>(r));
        if (response.find('\n') != std::string::npos) break;
    }
    if (response.empty()) {
        reason = strfmt("no greeting (try %d)", ntry);
        return 0;
    }
    tcp_write(c.get(), "QUIT\r\n", 6);
    while (!response.empty() && (response.back() == '\n' || response.back() == '\r')) response.pop_back();
    return 1;
}

int monitor_open(const char* mon_ips_scan) {
    const std::string monpid = monitor_monpid();
    for (const MonitorTarget& t : monitor_targets(mon_ips_scan != nullptr ? mon_ips_scan : "", monitor_state().testport)) {
        bool answered = false;
        for (int ntry = 1; ntry <= kMonitorTries && !answered; ++ntry) {
            if (!exists(monpid.c_str())) return 1;  // stopped on purpose
            std::string response, reason;
            if (check_host_connection(t, ntry, response, reason)) {
                imsg("Responded (%.200s) \n", response.c_str());
                answered = true;
            } else {
                emsg("Could not open link again %s:%d %d %s\n", t.host.c_str(), t.port, ntry, reason.c_str());
                emsg_flush();
                if (ntry < kMonitorTries) sleep(1);
            }
        }
        if (!answered) return 0;
    }
    return 1;
}

int monitor_restart_retry(const char* prog, int retry, single_list** sp_list) {
    const std::vector<std::string> args = config_args();
    const std::string line = shown(prog, args);
    imsg("detaching (%s)\n", line.c_str());
    osspawn_info info;
    std::string reason;
    if (!libspawn_create_args(prog, args, &reason, 0, &info)) {
        emsg("Could not start up the program {%s} error:%s (try %d)\n", line.c_str(), reason.c_str(), retry + 1);
        return 0;
    }
    imsg("Restarted server (%s)\n", line.c_str());
    emsg_flush();
    // The server detaches: its first process ends at once with 0. Anything
    // else within the wait is a server that could not start.
    if (libspawn_is_process_finished(&info, kMonitorRestartWait, &reason)) {
        if (info.exitcode != 0) {
            emsg("server program {%s} self terminated:%s (exit %d)\n", line.c_str(), reason.c_str(), info.exitcode);
            return 0;
        }
        return 1;
    }
    if (sp_list == nullptr || *sp_list == nullptr || !libspawn_autowaitforend(*sp_list, &info, 0, &reason))
        libspawn_reap_later(&info);
    return 1;
}

int monitor_restart(const char* prog, single_list** sp_list) {
    for (int retry = 0; retry < kRestartTries; ++retry) {
        if (monitor_restart_retry(prog, retry, sp_list)) return 1;
        sleep(1);
    }
    return 0;
}

int monitor_openrestart(const char* mon_ips_scan, const char* prog, const char* smtp, const char* manager,
                        single_list** sp_list) {
    if (monitor_open(mon_ips_scan)) return 0;
    MonitorState& st = monitor_state();
    emsg("The server does not answer: keeping the evidence and restarting it\n");
    crash_record(st.mainlog.c_str());
    emsg_flush();
    end_hung_server();
    const std::string kept = st.mainlog + ".old";
    if (rename(st.mainlog.c_str(), kept.c_str()) != 0)
        emsg("Could not rename %s: %s\n", st.mainlog.c_str(), errtext(errno).c_str());
    monitor_restart(prog, sp_list);
    emsg_flush();
    sleep_ms(kMonitorMailPauseMs);
    st.mail_files = {kept, "startstop.log"};
    monitor_email(smtp, manager);
    emsg_flush();
    return 0;
}

int monitor_run(const char* prog, int pid, const char* smtp, const char* manager, const char* mon_ips_scan,
                int isrestart) {
    MonitorState& st = monitor_state();
    emsg_open(st.logname.c_str());
    tcp_init();
    imsg("monitor run (%s) (%s) (%d) (%s) (%s)\n", prog, smtp, pid, manager, mon_ips_scan);
    if (exists(kExitFile)) {
        if (remove(kExitFile) == 0)
            imsg("mon.exit sucessully deleted by monitor startup\n");
        else
            emsg("mon.exit could not be deleted by monitor startup, %s\n", errtext(errno).c_str());
    } else {
        imsg("mon.exit not found\n");
    }
    emsg_flush();
    monitor_write_pid();
    for (int i = 0; i < kMonitorStartRounds && monitor_pid_matches(); ++i) sleep(1);

    const std::string monpid = monitor_monpid();
    while (!exists(kExitFile)) {
        if (!monitor_pid_matches()) {
            imsg("Monitor shutting down as monitor.pid changed\n");
            emsg_flush();
            return 1;
        }
        sleep(1);
        if (isrestart && exists(monpid.c_str())) {
            imsg("Doing a monitor check on %s\n", mon_ips_scan);
            monitor_openrestart(mon_ips_scan, prog, smtp, manager, nullptr);
        }
        emsg_flush();
        libspawn_reap_pending();
        for (int i = 0; i < kMonitorCheckSeconds; ++i) {
            if (exists(kExitFile)) {
                imsg("Found mon.exit 3, closing monitor\n");
                emsg_flush();
                return 1;
            }
            if (!monitor_pid_matches()) break;
            sleep(1);
        }
    }
    imsg("Found mon.exit 1, closing monitor\n");
    emsg_flush();
    return 1;
}

}  // namespace korv
