// Process control: the command line, the home and log home, the control
// files, the start-stop log, the crash copy of the log and detaching.
#include "server/process/control.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/threads.h"
#include "common/emsg.h"
#include "common/emsg_files.h"

namespace korv {

KorvOptions korv_opts;

namespace {

std::mutex dirs_mx;  // the home, log home and stem change only at start, but are read from every thread
std::string xhome;
std::string xloghome;
std::string bin_name = "korvane";
std::mutex startstop_mx;

struct FileClose {
    void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

// The strings handed out by korv_home and korv_log_home stay valid until the
// next change: each change keeps the old text alive.
const char* keep(const std::string& s) {
    static std::vector<std::unique_ptr<std::string>> kept;
    kept.push_back(std::make_unique<std::string>(s));
    return kept.back()->c_str();
}
const char* home_text = "";
const char* loghome_text = "";

}  // namespace

namespace {

struct OptionHelp {
    const char* option;
    const char* text;
};

const OptionHelp kOptionHelp[] = {
    {"-config FILE", "read the settings from FILE instead of /etc/korvane.ini"},
    {"-test", "stay in the foreground instead of detaching as a daemon"},
    {"-stop", "ask the server running on this configuration to stop"},
    {"-port N", "the FTP port when the settings give no global_port"},
    {"-debug", "allow the diagnostic commands of the admin pages"},
    {"-nothreads", "accepted; no effect"},
    {"-monitor PID", "run as the monitor of server PID (the server starts it)"},
    {"-smtp HOST", "the mail relay of the monitor's reports"},
    {"-manager ADDRESS", "the address the monitor's reports go to"},
    {"-ip_to_scan ADDRESS", "the address the monitor checks"},
    {"-version", "print the version and exit"},
    {"-install", "not in this build: use the installer of this distribution"},
    {"-uninstall", "not in this build: use the installer of this distribution"},
    {"-password", "set the web administration's password (admin.dat in the home of the"},
    {"", "configuration): asked twice on a terminal, else the first line of standard input"},
    {"-user NAME", "with -password: the admin user name (default admin)"},
    {"-output_web_files DIR", "write the main admin pages into DIR/web and exit"},
    {"-addsvc", "accepted; no effect on this system"},
    {"-restart", "(with -monitor) check the server and restart it"},
    {"-help, --help, -h", "print this text and exit"},
};

}  // namespace

void korv_usage(FILE* out) {
    std::fprintf(out, "Usage: korvane [options]\n");
    for (const OptionHelp& o : kOptionHelp) std::fprintf(out, "  %-22s %s\n", o.option, o.text);
    std::fflush(out);
}

void korv_parse_args(int argc, char** argv, KorvOptions& o) {
    // A wrong command line starts nothing: one line saying what is wrong, the
    // usage, and status 2.
    auto wrong = [&o](const std::string& what) {
        std::fprintf(stderr, "korvane: %s\n", what.c_str());
        korv_usage(stderr);
        o.leave = 1;
        o.status = 2;
    };
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        static const char* const kWithValue[] = {"-port", "-monitor", "-smtp", "-manager", "-ip_to_scan", "-config", "-user"};
        for (const char* w : kWithValue) {
            if (a == w && next == nullptr) {
                wrong("option " + a + " needs a value");
                return;
            }
        }
        auto value = [&](std::string& dst) {
            dst.assign(next, strnlen(next, kMonFieldMax));
            ++i;
        };
        if (a == "-help" || a == "--help" || a == "-h") {
            korv_usage(stdout);
            o.leave = 1;
            return;
        } else if (a == "-version") {
            printf("verison %s, built %s %s\n", "0.1", __DATE__, "linux");
            printf("Large file offset bits (%d)\n", 64);
            printf("Large file > 2gig support is compiled in\n");
            o.leave = 1;
            return;
        } else if (a == "-password") {
            // Acted on once the whole line is read: -config may follow.
            o.password = 1;
        } else if (a == "-user") {
            o.admin_user = next, ++i;
        } else if (a == "-install" || a == "-uninstall") {
            printf("%s: use the installer of this distribution\n", a.c_str());
            o.leave = 1;
            return;
        } else if (a == "-port") {
            o.port = atoi(next), ++i;
        } else if (a == "-monitor") {
            o.mon_pid = atoi(next), ++i;
        } else if (a == "-smtp") {
            value(o.mon_smtp);
        } else if (a == "-manager") {
            value(o.mon_manager);
        } else if (a == "-ip_to_scan") {
            value(o.mon_ip_scan);
        } else if (a == "-config") {
            o.config = next, ++i;
        } else if (a == "-nothreads") {
            o.nothreads = 1;
        } else if (a == "-debug") {
            o.debug = 1;
        } else if (a == "-test") {
            o.nodetach = 1;
        } else if (a == "-stop") {
            o.stopit = 1;
        } else if (a == "-restart") {
            o.mon_restart = 1;  // a monitor checks and restarts; a server ignores it
        } else if (a == "-addsvc") {
            // accepted; nothing to do on this platform
        } else {
            wrong("unknown option " + a);
            return;
        }
    }
}

void korv_set_bin_name(const char* name) {
    std::lock_guard<std::mutex> g(dirs_mx);
    bin_name = name != nullptr ? name : "korvane";
}

const char* korv_bin_name() {
    std::lock_guard<std::mutex> g(dirs_mx);
    return bin_name.c_str();
}

const char* korv_home() {
    std::lock_guard<std::mutex> g(dirs_mx);
    return home_text;
}

const char* korv_log_home() {
    std::lock_guard<std::mutex> g(dirs_mx);
    return loghome_text;
}

void korv_set_home(const char* s) {
    std::lock_guard<std::mutex> g(dirs_mx);
    xhome = s != nullptr ? s : "";
    if (xhome != home_text) home_text = keep(xhome);
}

void korv_set_log_home(const char* s) {
    std::lock_guard<std::mutex> g(dirs_mx);
    xloghome = s != nullptr ? s : "";
    if (xloghome != loghome_text) loghome_text = keep(xloghome);
}

std::string& bin_file(const char* ext, std::string& tmp) {
    tmp = strfmt("%s%s", korv_bin_name(), ext);
    if (tmp.size() > 998) tmp.resize(998);
    return tmp;
}

std::string bin_file(const char* ext) {
    std::string tmp;
    return bin_file(ext, tmp);
}

std::string& file_work(const char* fname, std::string& tmp) {
    tmp = strfmt("%.500s/%.500s", korv_home(), fname);
    return tmp;
}

int file_touch(const char* file) {
    FilePtr f(fopen(file, "a"));
    return f ? 1 : -1;
}

int file_exists(const char* file) {
    struct stat st {};
    return stat(file, &st) == 0 ? 1 : 0;
}

int get_pid_from_file(const char* filename) {
    FilePtr f(fopen(filename, "r"));
    if (!f) return 0;
    char line[100] = {};
    if (fgets(line, sizeof line, f.get()) == nullptr) return 0;
    return atoi(line);
}

int is_korvane_pid_this_server() {
    return get_pid_from_file(bin_file(".pid").c_str()) == th_pid() ? 1 : 0;
}

int is_monitor_pid_for_this_server(int mon_pid) {
    return mon_pid != 0 && get_pid_from_file("monitor.pid") == mon_pid ? 1 : 0;
}

void get_log_file_path(std::string& output, const char* filename) {
    std::string lh = korv_log_home();
    if (lh.empty()) {
        output = filename;
        return;
    }
    const char* base = filename;
    for (const char* p = filename; *p; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;
    size_t slash = lh.find_last_of("/\\");
    char sep = slash != std::string::npos ? lh[slash] : '/';
    if (lh.back() == '/' || lh.back() == '\\')
        output = strfmt("%s%s", lh.c_str(), base);
    else
        output = strfmt("%s%c%s", lh.c_str(), sep, base);
}

int lib_tail_file(const char* inname, const char* outname, int want, int append) {
    FilePtr in(fopen(inname, "rb"));
    if (!in) {
        emsg("Cound not open (%s) %s\n", inname, errtext(errno).c_str());
        return 0;
    }
    if (!append) remove(outname);
    FilePtr out(fopen(outname, "ab"));
    if (!out) {
        emsg("Cound not open (%s) %s\n", outname, errtext(errno).c_str());
        return 0;
    }
    fseek(in.get(), 0, SEEK_END);
    long size = ftell(in.get());
    long start = size - want;
    if (start < 0) start = 0;
    fseek(in.get(), start, SEEK_SET);
    char bf[1000];
    if (start > 0 && fgets(bf, sizeof bf, in.get()) == nullptr) return 1;
    long copied = 0;
    size_t n;
    while (copied <= 2L * want && (n = fread(bf, 1, 999, in.get())) > 0) {
        fwrite(bf, 1, n, out.get());
        copied += static_cast<long>(n);
    }
    return 1;
}

void log_startstop_text(const char* text) {
    std::string path = strfmt("%s/startstop.log", korv_home());
    if (*korv_home() == 0) path = "startstop.log";
    std::lock_guard<std::mutex> g(startstop_mx);
    FilePtr f(fopen(path.c_str(), "a"));
    if (!f) return;
    char stamp[64];
    time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tmv);
    size_t len = strlen(text);
    fprintf(f.get(), "%s %d %s%s", stamp, th_pid(), text, len > 0 && text[len - 1] == '\n' ? "" : "\n");
}

void log_startstop(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    log_startstop_text(text.c_str());
}

int lib_detach() {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        emsg("Could not detach: fork failed %s\n", errtext(errno).c_str());
        return 0;
    }
    if (pid > 0) _exit(0);
    setsid();
    int fd = open("/dev/null", O_RDWR);
    if (fd >= 0) {
        dup2(fd, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        if (fd > 2) close(fd);
    }
    return 1;
}

void korv_raise_fd_limit() {
    struct rlimit rl {};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

}  // namespace korv
