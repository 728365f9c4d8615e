// The server's spine: main's start-up order and the internal restart, the two
// accept loops, binding, and the hand-off of accepted connections.
#include "server/process/korv.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "base/dalloc.h"
#include "base/fmt.h"
#include "base/threads.h"
#include "common/emsg.h"
#include "common/hammer.h"
#include "common/mutex.h"
#include "net/certgen.h"
#include "net/tls.h"
#include "server/auth/auth_setups.h"
#include "server/auth/mex_auths.h"
#include "server/auth/passfail.h"
#include "server/auth/user.h"
#include "server/ftp/daily.h"
#include "server/ftp/plog.h"
#include "server/ftp/session.h"
#include "server/process/control.h"
#include "server/process/idle.h"
#include "server/process/password.h"
#include "server/process/starter.h"
#include "server/process/watch.h"
#include "server/session/link.h"
#include "server/session/threadlist.h"
#include "server/settings/ini.h"
#include "server/vfs/home.h"
#include "server/vfs/vdir_path.h"
#include "store/vini.h"

namespace korv {

namespace {

constexpr int kWebWaitMs = 200;    // the main loop's longest wait: the period of the idle tick
constexpr int kFtpWaitMs = 1000;   // the FTP acceptor's longest wait (it is woken for flags)
constexpr int kCertDays = 3650;    // life of the self-signed certificate of a first start

std::atomic<int> port{21};
std::atomic<int> mgrport{7021};
std::atomic<int> mgrsslport{9021};
std::atomic<int> cpu_msec{0};
std::atomic<const char*> main_status{"Starting"};
std::atomic<AccountFn> admin_handler{nullptr};

// A wake-up pipe for each accept loop, in its wait list beside the listeners.
struct WakePipe {
    int fd[2] = {-1, -1};
    void open() {
        if (fd[0] < 0 && pipe2(fd, O_CLOEXEC | O_NONBLOCK) != 0) emsg("Wake pipe failed %s\n", strerror(errno));
    }
    void poke() const {
        if (fd[1] >= 0) {
            char b = 1;
            ssize_t r = write(fd[1], &b, 1);
            (void)r;
        }
    }
};
WakePipe wake_ftp;
WakePipe wake_web;

int drain_wake(void* p) {
    int fd = *static_cast<int*>(p);
    char bf[64];
    while (read(fd, bf, sizeof bf) > 0) {
    }
    return 1;
}

void add_fd_to_wait(WaitList** wl, int* fd, WaitFn fn) {
    if (*fd < 0) return;
    if (*wl == nullptr) *wl = new WaitList();
    (*wl)->info.push_back(SKT_PTR{*fd, fd, fn});
}

int session_thread(void* l) { return ftp_main(static_cast<LINK*>(l)); }

// 1 if the failed accept only found nothing waiting.
bool nothing_pending(Chan* c) {
    int e = c->tcp->ErrorCode;
    return e == EAGAIN || e == EWOULDBLOCK || e == EINTR || e == ECONNABORTED;
}

// Takes one pending connection off the listener into `c`; false when none is left.
bool accept_one(Chan_List* itm, ChanPtr& c) {
    c = tcp_new_owned();
    if (tcp_accept(itm->c, c.get())) return true;
    if (!nothing_pending(c.get())) imsg("Accept failed %s", tcp_error(c.get()).c_str());
    return false;
}

// Gives an accepted connection its session record and a thread (on the starter thread).
void start_session(Accepted&& a) {
    ChanPtr c = std::move(a.c);
    tcp_set_nodelay(c.get(), 1);
    Link* l = nullptr;
    if (!link_new(&l)) {
        emsg("Link_new failed\n");
        tcp_printf(c.get(), "500 cannot allocate resources for this FTP connection, try again in a minute.\r\n");
        return;
    }
    char myip[64] = {}, rmtip[64] = {};
    unsigned short lcl = 0;
    tcp_getipandports(c.get(), myip, &lcl, rmtip, nullptr);
    l->myip = myip;
    l->ipnum = rmtip;
    if (l->myip.empty() || l->myip == "0.0.0.0")
        imsg("Got bad ip info on incoming connection (%s)\r\n", l->myip.c_str());
    else
        dmsg("Connection on %s:%d\r\n", l->myip.c_str(), lcl);
    l->c = std::move(c);
    l->user.clear();
    l->get_accept = static_cast<int>(a.at);
    l->ssl_implicit = a.autossl;
    if (main_new_reuse_thread(session_thread, l, nullptr, a.strid)) return;
    tcp_printf(l->c.get(), "500 cannot allocate resources for this HTTP connection, try again in a minute.\r\n");
    korvane_restart("Server running out of resources, try to free some up by restarting");
    link_free(&l);
}

// The listener callbacks: every pending connection is accepted at once, the
// loop's lock held while they are handed over. FTP sessions start on the
// listener's SessionStarter (its parameter), so that the queue is emptied at
// the pace of accept alone.
int accept_all_ftp(void* p) {
    Chan_List* itm = static_cast<Chan_List*>(p);
    auto* starter = static_cast<SessionStarter*>(itm->parameter);
    MutexHold hold(MUTEX_LOOP);
    mutex_info_set(MUTEX_LOOP, "loop3");
    for (ChanPtr c; !shutdown_now.load() && accept_one(itm, c);)
        starter->push(Accepted{std::move(c), itm->autostartssl, itm->strid, time(nullptr)});
    return 1;
}

int accept_all_web(void* p) {
    Chan_List* itm = static_cast<Chan_List*>(p);
    MutexHold hold(MUTEX_CHECK_LOOP);
    mutex_info_set(MUTEX_CHECK_LOOP, "loop4");
    while (try_accept_connection_no_threads(itm) > 0 && !shutdown_now.load()) {
    }
    return 1;
}

struct LAH_INFO {
    process_data* main_process_info = nullptr;
    int* started_up_self_loop_checking = nullptr;
    int this_is_the_ftp = 0;
};

// The certificate and key of the TLS ports, made on the first start.
void ensure_certificate(const char* home) {
    std::string cert = strfmt("%s/%s", home, "korvane_cert.pem");
    std::string key = strfmt("%s/%s", home, "korvane_priv.pem");
    if (file_exists(cert.c_str()) && file_exists(key.c_str())) return;
    std::string reason;
    char host[256] = "localhost";
    gethostname(host, sizeof host - 1);
    if (certgen_self_signed(host, kCertDays, cert, key, reason))
        imsg("Made a self-signed certificate %s\n", cert.c_str());
    else
        emsg("Could not make a self-signed certificate: %s\n", reason.c_str());
}

void tls_setup(const char* home) {
    ensure_certificate(home);
    SSLTCP_SSLConfig_SetKey(&my_main_sslconfig, home, "korvane_priv.pem", "korvane_cert.pem");
    if (ini_true(nullptr, INI_GLOBAL_SSL_DISABLE_SSLV2)) {
        korvane_disable_sslv2();
        imsg("SSLV2 has been disabled\n");
    } else {
        imsg("SSLV2 is enabled, set global_ssl_disable_sslv2 true to disable\n");
    }
    if (ini_true(nullptr, INI_GLOBAL_SSL_DISABLE_TLSV1)) {
        korvane_disable_tls();
        imsg("SSL tls has been disabled\n");
    } else {
        imsg("SSL tls is enabled, set global_ssl_disable_tlsv1 true to disable\n");
    }
    korvane_set_require_client_certificates(ini_true(nullptr, INI_GLOBAL_SSL_REQUIRE_CLIENT_CERTIFICATE));
    korvane_set_cipher_list(ini_get(nullptr, INI_GLOBAL_SSL_CIPHER_LIST));
    SSLTCP_SSLConfig_SetKey(&my_webmgr_sslconfig, home, "korvane_priv.pem", "korvane_cert.pem");
}

int truthy_or_empty(const char* s) { return s == nullptr || *s == 0 || strcasecmp(s, "true") == 0; }

}  // namespace

int korv_ftp_port() { return port.load(); }
int korv_mgr_port() { return mgrport.load(); }
int korv_mgr_ssl_port() { return mgrsslport.load(); }
int korv_main_cpu_msec() { return cpu_msec.load(); }
const char* korv_main_status() { return main_status.load(); }

void korv_wake_loops() {
    wake_ftp.poke();
    wake_web.poke();
    self_loop_wake();
}

int korv_is_ftp_active() { return ftp_port_active.load(); }

void korv_set_admin_handler(AccountFn fn) { admin_handler.store(fn); }

namespace {
// Background work of the upper layers, installed before korv_main runs.
struct Background {
    KorvHookFn start;
    KorvHookFn stop;
};
std::vector<Background> background;
}  // namespace

void korv_add_background(KorvHookFn start, KorvHookFn stop) { background.push_back({start, stop}); }

size_t korv_admin_stack_bytes() {
    size_t session = th_get_stack_size();
    return session * 8 > kAdminStackBytes ? session * 8 : kAdminStackBytes;
}

int korv_startftp(const char* reason) {
    emsg("start FTP - %s\n", reason);
    if (ftp_port_active.load() == 0) {
        ftp_port_active.store(1);
        start_or_stop_ftp_port.store(1);
    }
    korv_wake_loops();
    return 1;
}

int korv_stopftp(const char* reason) {
    emsg("stop FTP - %s\n", reason);
    if (ftp_port_active.load() == 1) {
        ftp_port_active.store(0);
        start_or_stop_ftp_port.store(1);
    }
    korv_wake_loops();
    return 1;
}

int korvane_shutdown(const char* reason) {
    emsg("Shutdown called - %s\n", reason);
    korv_notify("STOPPING=1");
    shutdown_now.store(1);
    korv_wake_loops();
    return 1;
}

int korvane_restart(const char* reason) {
    emsg("Restart - %s\n", reason);
    restart_ftp_now.store(1);
    korv_wake_loops();
    return 1;
}

void korvane_unsafe_restart(int x) { korvane_unsafe.store(x); }

int bind_add_address(const char* connection_type, Chan_List** clist, WaitFn function, void* parameter, int autossl,
                     const char* ipadress, int xport, int reuse, std::string& tmp) {
    Chan* c = nullptr;
    tcp_new(&c);
    if (!tcp_listen(c, ipadress, static_cast<unsigned short>(xport), reuse)) {
        tmp = strfmt("Could not listen on port %d, have you stopped your old FTP server? %s\n", xport,
                     tcp_error(c).c_str());
        if (tmp.size() > 998) tmp.resize(998);
        emsg("%s", tmp.c_str());
        printf("%s", tmp.c_str());
        tcp_free(&c);
        return 0;
    }
    const char* shown = ipadress != nullptr && *ipadress ? ipadress : "localhost";
    tcp_set_blocking(c, 0);
    tmp = strfmt("Binding \"%s\" to local interface (%s) port %d\n", connection_type, shown, xport);
    printf("%s", tmp.c_str());
    imsg("%s", tmp.c_str());
    Chan_List_Add(clist, c, function, parameter, autossl, THREAD_ID_STRING_CHANNEL_OPENING);
    return 1;
}

int try_accept_connection_no_threads(Chan_List* itm) {
    time_t accepted = time(nullptr);
    ChanPtr c = tcp_new_owned();
    if (!tcp_accept(itm->c, c.get())) {
        if (!nothing_pending(c.get())) imsg("Accept failed");
        return 0;
    }
    Link* l = nullptr;
    if (!link_new(&l)) return 0;
    char myip[64] = {}, rmtip[64] = {};
    tcp_getipandports(c.get(), myip, nullptr, rmtip, nullptr);
    l->myip = myip;
    l->ipnum = rmtip;
    if (l->myip.empty() || l->myip == "0.0.0.0") {
        // The record stays in the table, as it always has; only the channel goes.
        dmsg("Ignoring cisco connection\r\n");
        return 1;
    }
    l->c = std::move(c);
    l->user.clear();
    l->get_accept = static_cast<int>(accepted);
    l->ssl_implicit = itm->autostartssl;
    AccountFn fn = admin_handler.load();
    if (fn == nullptr) {
        tcp_printf(l->c.get(), "500 This HTTP connection is not configured.\r\n");
        link_free(&l);
        return 0;
    }
    // Each admin connection has a thread of its own: a slow browser never holds
    // the accept loop, and the page engine's recursion gets the stack it needs.
    if (main_new_thread(fn, l, nullptr, THREAD_ID_STRING_WEB_ADMIN, korv_admin_stack_bytes())) return 1;
    tcp_printf(l->c.get(), "500 cannot allocate resources for this HTTP connection, try again in a minute.\r\n");
    link_free(&l);
    return 0;
}

// Accept loops that have their ports open, for the READY=1 notice.
static std::atomic<int> ready_loops{0};

int listen_accept_handler(process_data* main_process_info, int* started_up_self_loop_checking, int do_ftp_channels) {
    const bool ftp = do_ftp_channels != 0;
    const int loop_lock = ftp ? MUTEX_LOOP : MUTEX_CHECK_LOOP;
    imsg("listen_accept_handler - starting, doftp=%d\n", do_ftp_channels);
    MutexHold hold(loop_lock);
    mutex_info_set(loop_lock, "loop1");
    // Outlives the listener list: its queue holds no reference to it.
    std::unique_ptr<SessionStarter> starter;
    if (ftp) starter = std::make_unique<SessionStarter>(start_session);
    Chan_List* list = nullptr;
    WaitList* wl = nullptr;
    auto failed = [&]() {
        imsg("listen: failed exit\n");
        Chan_List_free_WaitList(&wl);
        Chan_List_free(&list);
        return 0;
    };

    int r = ini_true(nullptr, INI_GLOBAL_THREAD_REUSE) || truthy_or_empty(ini_get(nullptr, INI_GLOBAL_THREAD_REUSE));
    ftp_set_reuse(r);
    if (ftp && r) imsg("Thread reuse is ENABLED\n");

    int implicit_port = 0;
    if (ftp) {
        const char* ip = ini_get(nullptr, INI_GLOBAL_IMPLICIT_PORT);
        implicit_port = atoi(ip != nullptr ? ip : "");
        if (implicit_port == 0 && ip != nullptr && (strcasecmp(ip, "on") == 0 || strcasecmp(ip, "yes") == 0))
            implicit_port = 990;
        if (implicit_port > 0)
            imsg("Implicit SSL active on port %d.\n", implicit_port);
        else
            imsg("No implicit SSL ftp port active.\n");
    }

    std::string binds = ini_get(nullptr, INI_GLOBAL_BIND) != nullptr ? ini_get(nullptr, INI_GLOBAL_BIND) : "";
    imsg(ftp ? "Binding FTP ports...\n" : "Binding Web Admin ports...\n");
    int tries = 0, good = 0;
    bool ftp_activated = false;
    std::string tmp;
    size_t from = 0;
    do {
        size_t comma = binds.find(',', from);
        std::string addr = binds.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
        from = comma == std::string::npos ? binds.size() + 1 : comma + 1;
        if (ftp) {
            if (ftp_port_active.load()) {
                ftp_activated = true;
                ++tries;
                if (bind_add_address("for FTP", &list, accept_all_ftp, starter.get(), 0, addr.c_str(), port.load(), 1, tmp)) {
                    ++good;
                    imsg("Bind for main ftp port seemed ok\n");
                } else {
                    imsg("Bind failed for main ports ??\n");
                }
            }
            if (implicit_port >= 1 && ftp_activated) {
                ++tries;
                if (bind_add_address("for implicit FTP", &list, accept_all_ftp, starter.get(), 1, addr.c_str(), implicit_port,
                                     1, tmp))
                    ++good;
            }
        } else {
            if (mgrport.load() > 0) {
                ++tries;
                if (bind_add_address("for web admin", &list, accept_all_web, nullptr, 0, addr.c_str(), mgrport.load(),
                                     1, tmp))
                    ++good;
            }
            if (mgrsslport.load() > 0) {
                ++tries;
                if (bind_add_address("for secure web admin", &list, accept_all_web, nullptr, 1, addr.c_str(),
                                     mgrsslport.load(), 1, tmp))
                    ++good;
            }
        }
    } while (from <= binds.size());

    if (ftp) {
        dmsg("ftp ports %d/%d.", good, tries);
        if (tries > 0 && good == 0) emsg("Cannot set up any FTP ports! have you stopped your old ftp server?");
    } else {
        dmsg("mgr ports %d/%d.", good, tries);
        if (tries > 0 && good == 0) {
            emsg("Cannot set up any control ports!!!!!!!!!!!!!");
            return failed();
        }
    }
    if (list == nullptr && mgrsslport.load() >= 0) {
        emsg("No ports!");
        return failed();
    }
    if (!Chan_List_create_WaitList(list, &wl)) {
        emsg("Chan List out of memory");
        return failed();
    }
    WakePipe& wake = ftp ? wake_ftp : wake_web;
    add_fd_to_wait(&wl, &wake.fd[0], drain_wake);
    int sigfd = sig_pipe_fd();
    if (!ftp) add_fd_to_wait(&wl, &sigfd, sig_dispatch_pending);
    imsg(ftp ? "Korvane is now ready for ftp connections\n" : "Korvane is now ready for web admin connections\n");
    // Ready for systemd once both loops listen (READY=1 again after an internal restart is harmless).
    if (++ready_loops == 2) korv_notify("READY=1");

    if (!ftp) {
        main_thread_store_MainProcess(getpid(), THREAD_ID_MAIN_PROCESS, nullptr, time(nullptr));
        if (!*started_up_self_loop_checking) {
            if (main_new_reuse_thread(self_loop_checking, nullptr, started_up_self_loop_checking, THREAD_ID_SELF_DIAGNOSTIC))
                *started_up_self_loop_checking = 1;
            else
                emsg("could not start self diagnostic thread?");
        }
    }

    hold.release();

    // A stop ends the FTP loop alone. A start ends the web loop too, so that
    // the start-up goes round once more and binds the FTP ports again at once
    // (the FTP loop is gone by then: it left at the stop).
    auto keep_going = [&] {
        const bool start_stop = start_or_stop_ftp_port.load() != 0;
        return !shutdown_now.load() && !restart_ftp_now.load() && !(ftp && start_stop) &&
               !(!ftp && start_stop && ftp_port_active.load());
    };
    // The loop's lock is held for each pass's own work and let go for the
    // wait, which is the loop's sleep; the accept routines take it again.
    while (keep_going()) {
        mutex_wait(loop_lock);
        mutex_info_set(loop_lock, "loop2");
        if (!ftp) {
            main_status.store("idle");
            mutex_info_set(loop_lock, "loopidle1");
            if (donewthreadmutexcrash.exchange(0)) emsg("mutex crash test is only available with -debug\n");
            cpu_msec.store(th_cpu_msec());
            korv_idle(main_process_info);
            mutex_info_set(loop_lock, "loopidle2");
        }
        mutex_info_set(loop_lock, "loopwait1");
        mutex_release(loop_lock);
        main_status.store("waiting");
        Chan_List_check_WaitList(wl, ftp ? kFtpWaitMs : kWebWaitMs, 1, 0, 0);
    }
    MutexHold ending(loop_lock);
    mutex_info_set(loop_lock, "loopending");
    if (!korvane_unsafe.load()) {
        if (!ftp) {
            main_thread_remove_MainProcess(getpid());
            MutexHold m(MUTEX_MAIN);
            if (restart_ftp_now.load())
                imsg("Restarting Korvane...\n");
            else if (shutdown_now.load())
                imsg("Shutting down....\n");
            else if (start_or_stop_ftp_port.load())
                imsg("Starting or stoping ftp port...\n");
            else
                imsg("Korvane exiting...");
        }
        Chan_List_free_WaitList(&wl);
        Chan_List_free(&list);
    }
    imsg("listen: normal exit\n");
    return 1;
}

int threaded_listen_accept_handler(void* p) {
    std::unique_ptr<LAH_INFO> info(static_cast<LAH_INFO*>(p));
    return listen_accept_handler(info->main_process_info, info->started_up_self_loop_checking, 1);
}

int start_korv_main(process_data* main_process_info, int* started_up_self_loop_checking) {
    ready_loops.store(0);
    auto info = std::make_unique<LAH_INFO>();
    info->main_process_info = main_process_info;
    info->started_up_self_loop_checking = started_up_self_loop_checking;
    info->this_is_the_ftp = 1;
    imsg("Creating threaded_listen_accept_handler, with ftp=%d\n", info->this_is_the_ftp);
    if (!main_new_reuse_thread(threaded_listen_accept_handler, nullptr, info.get(), THREAD_ID_FTP_CHANNEL_HANDLER)) {
        emsg("could not start self diagnostic thread?");
        return 0;
    }
    info.release();
    return listen_accept_handler(main_process_info, started_up_self_loop_checking, 0);
}

namespace {

std::string config_abs;  // the configuration read, as an absolute path

MonitorStart monitor_start(const std::string& home) {
    MonitorStart m;
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    m.prog = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string("korvane");
    m.config = config_abs;
    m.port = port.load();
    get_log_file_path(m.logname, strfmt("%.500s/%.200s", home.c_str(), "monitor.log").c_str());
    get_log_file_path(m.mainlog, strfmt("%.500s/%.200s", home.c_str(), bin_file(".log").c_str()).c_str());
    return m;
}

bool monitor_pid_is_stale() {
    struct stat st {};
    return stat("monitor.pid", &st) != 0 || time(nullptr) - st.st_mtime >= kMonitorPidFreshSeconds;
}

// The steps that run at each start and again at each internal restart; false
// when main must return at once (a stop request, a missing home).
int run_once(const char* start_word, process_data* children, int& leave) {
    KorvOptions& o = korv_opts;
    if (restart_ftp_now.load()) {
        imsg("main: reinit thread library\n");
        th_init_threads();
    }
    if (o.mon_pid == 0) sig_init();
    exit_due_to_shutdown_now.store(0);
    start_time = time(nullptr);
    srand(static_cast<unsigned>(start_time));
    printf(o.mon_pid ? "Korvane Monitor is %s\n" : "Korvane is %s\n", start_word);
    fflush(stdout);

    korv_set_bin_name("korvane");
    ini_read("korvane", o.config.c_str());
    const char* lh = ini_get(nullptr, INI_LOG_HOME);
    korv_set_log_home(lh);
    std::string home = ini_get(nullptr, INI_HOME) != nullptr ? ini_get(nullptr, INI_HOME) : "";
    if (lh != nullptr && *lh) mkdir(lh, 0755);
    port.store(o.port);
    if (int gp = ini_geti(nullptr, INI_GLOBAL_PORT); gp > 0) port.store(gp);
    if (home.empty()) {
        printf("Fatal error, \"home\" not defined in korvane.ini, must be in the first domain defined\n");
        emsg("Fatal error, home not defined in korvane.ini, must be in the first domain defined\n");
        abort();
    }
    korv_set_home(home.c_str());
    if (chdir(home.c_str()) != 0) emsg("Cannot change directory to %s\n", home.c_str());
    if (o.mon_pid > 0) {
        // This process is the monitor of server mon_pid.
        MonitorStart m = monitor_start(home);
        m.pid = o.mon_pid;
        m.smtp = o.mon_smtp;
        m.manager = o.mon_manager;
        m.ip_to_scan = o.mon_ip_scan;
        m.isrestart = o.mon_restart;
        // The default dispositions stay: a SIGTERM ends a monitor at once.
        signal(SIGPIPE, SIG_IGN);
        if (!korv_monitor_run(m)) printf("This build has no monitor\n");
        leave = 1;
        return 0;
    }
    if (int mp = ini_geti(nullptr, INI_GLOBAL_MGR_PORT); mp != 0) {
        mgrport.store(mp);
        mgrsslport.store(ini_geti(nullptr, INI_GLOBAL_MGR_SSL_PORT));
    }
    std::string logpath;
    get_log_file_path(logpath, strfmt("%.500s/%.200s", home.c_str(), bin_file(".log").c_str()).c_str());
    const char* roll = ini_get(nullptr, INI_LOG_DAYLY_ROLL);
    emsg_setautoroll(roll != nullptr && strcasecmp(roll, "true") == 0 ? 0 : 1);
    if (file_exists(bin_file(".pid").c_str()))
        lib_tail_file(logpath.c_str(), strfmt("%.500s/%.200s", home.c_str(), "korvane_crash.log").c_str(),
                      kCrashCopyBytes, 0);
    emsg_open(logpath.c_str());
    emsg_setlvl(ini_get(nullptr, INI_LOG_LEVEL));
    if (o.stopit) {
        file_touch(bin_file(".exit").c_str());
        leave = 1;
        return 0;
    }
    remove(bin_file(".exit").c_str());
    remove(bin_file(".restart").c_str());
    tcp_init();
    imsg("\n");
    imsg("\n");
    imsg("%s %.500s %s - built on %.500s %.500s\n", "Korvane", KORV_VERSION, start_word, __DATE__, __TIME__);
    log_startstop("%s %.500s %s - built on %.500s %.500s\n", "Korvane", KORV_VERSION, start_word, __DATE__, __TIME__);
    emsg_setflush(ini_true(nullptr, INI_GLOBAL_LOG_FLUSH));
    set_fx_log_flush(ini_true(nullptr, INI_GLOBAL_LOG_FLUSH));
    emsg_syslog_host(ini_get(nullptr, INI_GLOBAL_LOG_HOST));
    // The monitor (global_restart) joins with the watchdog's own work.
    if (o.nodetach) {
        printf("Server process not detaching (ctrl-c to break)\n");
        fflush(stdout);
    } else if (restart_ftp_now.load() == 0 && strcmp(start_word, "Starting") == 0) {
        lib_detach();
    }
    // Written after detaching, so that it names the daemon and not its parent.
    if (FILE* f = fopen(bin_file(".pid").c_str(), "w")) {
        fprintf(f, "%d\n", th_pid());
        fclose(f);
    }
    // The monitor watches a detached server; a younger monitor.pid is a live monitor.
    if (!o.nodetach && ini_true(nullptr, INI_GLOBAL_RESTART) && monitor_pid_is_stale()) {
        MonitorStart m = monitor_start(home);
        m.pid = th_pid();
        const char* v;
        m.smtp = (v = ini_get(nullptr, INI_GLOBAL_SMTP)) != nullptr ? v : "";
        m.manager = (v = ini_get(nullptr, INI_EMAIL)) != nullptr ? v : "";
        m.ip_to_scan = (v = ini_get(nullptr, INI_GLOBAL_BIND)) != nullptr ? v : "";
        m.isrestart = 1;
        korv_monitor_detach(m);
    }
    start_multi_auth_scenario();
    // The idle tick keeps these in step with the settings; set here so that
    // the first sessions read paths the same way.
    vdir_only_unix_slash(ini_true(nullptr, INI_GLOBAL_ONLY_UNIX));
    home_only_unix_slash(ini_true(nullptr, INI_GLOBAL_ONLY_UNIX));
    tls_setup(home.c_str());
    anon_hammering_set_default_values(ini_geti(nullptr, INI_GLOBAL_ANON_HAMMER_OVER_TIME),
                                      ini_geti(nullptr, INI_GLOBAL_ANON_HAMMER_MAX),
                                      ini_geti(nullptr, INI_GLOBAL_ANON_HAMMER_BLOCK_TIME));
    const char* nsd = ini_get(nullptr, INI_NO_SUFFIX_DEFAULT_DOMAIN);
    if (nsd != nullptr && strcasecmp(nsd, "TRUE") == 0) {
        const char* first = ini_get_p(nullptr, INI_VDOMAIN, "name");
        user_set_strip(first != nullptr ? first : "");
    } else {
        user_set_strip("");
    }

    for (const Background& b : background)
        if (b.start != nullptr) b.start();

    int started_up_self_loop_checking = 0;
    restart_ftp_now.store(0);
    do {
        start_or_stop_ftp_port.store(0);
        start_korv_main(children, &started_up_self_loop_checking);
        imsg("korvane: start_korv_main exited\n");
        log_startstop("Main loop exit or restart %d %d\n", korvane_unsafe.load(), restart_ftp_now.load());
        if (korvane_unsafe.load()) break;
    } while (start_or_stop_ftp_port.load() && !shutdown_now.load() && !restart_ftp_now.load());

    // The teardown.
    const bool unsafe = korvane_unsafe.load() != 0;
    const bool restarting = restart_ftp_now.load() != 0 && !shutdown_now.load();
    if (!unsafe) {
        link_exit();
        main_thread_kill_all(restarting ? 1 : 0);
    }
    imsg("closing spawned processes\n");
    mex_shutdown();
    user_shutdown();
    imsg("korvane closing files & any connections etc...\n");
    if (!unsafe) day_free();
    if (!unsafe)
        for (const Background& b : background)
            if (b.stop != nullptr) b.stop();
    pass_fail_free();
    if (!unsafe) plog_flush_all();
    if (!unsafe) remove_user_daily_quota();
    imsg("mutex_exit\n");
    if (shutdown_now.load()) remove("monitor.pid");
    if (!unsafe) {
        ini_free_all();
        libspawn_terminate_all(children);
        d_check();
    }
    return 1;
}

}  // namespace

int korv_main(int argc, char** argv) {
    // The command line and the configuration's presence are settled before
    // anything is set up: a wrong line or an unreadable file ends here.
    korv_parse_args(argc, argv, korv_opts);
    if (korv_opts.leave) return korv_opts.status;
    {
        std::string config = ini_path("korvane", korv_opts.config.c_str()), why;
        if (!ini_readable(config.c_str(), why)) {
            fprintf(stderr, "korvane: cannot read configuration %s: %s\n", config.c_str(), why.c_str());
            return 1;
        }
        // The monitor and the servers it starts run in the home: they get the whole path.
        char real[PATH_MAX];
        config_abs = realpath(config.c_str(), real) != nullptr ? real : config;
    }
    korv_test_lock_limit();
    const char* start_word = "Starting";
    reset_SSLTCP_SSLConfig(&my_main_sslconfig);
    reset_SSLTCP_SSLConfig(&my_webmgr_sslconfig);
    ssltcp_setemsg(emsg);
    srand(static_cast<unsigned>(time(nullptr)));
    d_malloc_init(imsg);
    th_init_threads();
    mutex_init();
    mutex_set_startstop_hook(log_startstop_text);
    mutex_set_crash_hook(mex_crash_shutdown);
    mutex_set_main_status_hook(korv_main_status);
    ini_set_dir_sources(korv_home, korv_log_home);
    if (korv_opts.password) return korv_password(korv_opts);
    korv_raise_fd_limit();
#if defined(__SANITIZE_ADDRESS__)
    th_set_stack_size(kSessionStackBytes * 8);  // the sanitizers' redzones need room
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    th_set_stack_size(kSessionStackBytes * 8);
#else
    th_set_stack_size(kSessionStackBytes);
#endif
#else
    th_set_stack_size(kSessionStackBytes);
#endif
    wake_ftp.open();
    wake_web.open();
    process_data children;
    for (;;) {
        int leave = 0;
        run_once(start_word, &children, leave);
        if (leave) return 0;
        if (korvane_unsafe.load() || restart_ftp_now.load() == 0 || shutdown_now.load()) break;
        start_word = "Restarting";
        imsg("Korvane Restart activated.");
    }
    d_malloc_exit();
    file_touch(strfmt("%s/mon.exit", korv_home()).c_str());
    remove(bin_file(".exit").c_str());
    remove(bin_file(".pid").c_str());
    emsg_flush();
    return 0;
}

}  // namespace korv
