// The end-to-end fixture: a temporary home with the configuration, free
// ports, the server process with its output in files, a bounded stop, a scan
// for crash reports; and the raw FTP client.
#include "tests/support/korv_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "base/str.h"

extern char** environ;

namespace korv::test {

const char* const kCrashMarkers[] = {
    "AddressSanitizer", "LeakSanitizer", "UndefinedBehaviorSanitizer", "ThreadSanitizer",
    "runtime error:",   "Assertion",     "process going down",         "fatal problem, dieing",
    "Mutexes are NULL", nullptr,
};

namespace {

using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point end) {
    auto d = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return d > 0 ? static_cast<int>(d) : 0;
}

// Binds `port` (0: any) on every interface; the port bound, or 0.
int try_port(int port) {
    int s = ::socket(AF_INET, SOCK_STREAM, 0);
    if (s < 0) return 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    a.sin_port = htons(static_cast<unsigned short>(port));
    socklen_t len = sizeof a;
    int got = 0;
    if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        got = ntohs(a.sin_port);
    ::close(s);
    return got;
}

// A port that nobody listens on now, on every interface.
int free_port() { return try_port(0); }

// The FTP port: active data connections leave from the port below it, so both
// must be free, and both lie above the ephemeral range, where the client
// sockets of tests running alongside cannot take them in the meantime.
int free_ftp_port() {
    constexpr int kLow = 61002, kHigh = 65535;  // the default ephemeral range ends at 60999
    std::random_device rd;
    std::mt19937 gen(rd());
    std::uniform_int_distribution<int> pick(kLow, kHigh);
    for (int tries = 0; tries < 200; tries++) {
        int p = pick(gen);
        if (try_port(p) == p && try_port(p - 1) == p - 1) return p;
    }
    return free_port();
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void replace_all(std::string& s, const std::string& from, const std::string& to) {
    for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
        s.replace(at, from.size(), to);
}

bool write_file(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

// Starts `argv` with standard output and error appended to the two files.
pid_t spawn(const std::vector<std::string>& argv, const std::string& out, const std::string& err,
            const std::string& cwd) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_addchdir_np(&fa, cwd.c_str());
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    return rc == 0 ? pid : -1;
}

// Waits for `pid` up to the bound: true with its status once it ended.
bool wait_pid(pid_t pid, int timeout_ms, int* status) {
    auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        pid_t r = ::waitpid(pid, status, WNOHANG);
        if (r == pid) return true;
        if (r < 0 && errno != EINTR) return false;
        if (ms_left(end) == 0) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// A fresh directory under the temporary folder with a lower-case name: the
// server lower-cases the per-domain log paths whole, so a mixed-case home would
// send its session logs elsewhere. "" on failure.
std::string make_lower_temp_dir(const std::string& prefix) {
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device rd;
    std::mt19937 gen(rd());
    std::uniform_int_distribution<size_t> pick(0, sizeof kChars - 2);
    std::string base = str_lower(std::filesystem::temp_directory_path().string()) + "/" + prefix;
    for (int tries = 0; tries < 100; tries++) {
        std::string dir = base;
        for (int i = 0; i < 8; i++) dir += kChars[pick(gen)];
        if (::mkdir(dir.c_str(), 0700) == 0) return dir;
        if (errno != EEXIST) return "";
    }
    return "";
}

}  // namespace

KorvServer::KorvServer(std::string config, std::string binary)
    : binary_(std::move(binary)), config_(std::move(config)) {
    dir_ = make_lower_temp_dir("korv-e2e-");
    EXPECT_FALSE(dir_.empty()) << "cannot make a temporary directory";
    // Sessions act as an unprivileged account, which must reach the tree.
    if (!dir_.empty()) ::chmod(dir_.c_str(), 0755);
    ftp_port_ = free_ftp_port();
    implicit_port_ = free_port();
    mgr_port_ = free_port();
    mgr_ssl_port_ = free_port();
    std::filesystem::create_directories(dir_ + "/pub");
}

KorvServer::~KorvServer() {
    if (pid_ > 0 && !reaped_) {
        EXPECT_TRUE(stop()) << "the server did not stop on SIGTERM";
    }
    check_clean();
    if (!dir_.empty() && !::testing::Test::HasFailure()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    } else if (!dir_.empty()) {
        std::fprintf(stderr, "korv_server: kept %s for inspection\n", dir_.c_str());
    }
}

std::string KorvServer::basic_config(const std::string& extra) {
    return "global_settings\n"
           "\thome \"@HOME@\"\n"
           "\tlog_level \"debug\"\n"
           "\tglobal_port \"@FTP_PORT@\"\n"
           "\tglobal_implicit_port \"@IMPLICIT_PORT@\"\n"
           "\tglobal_mgr_port \"@MGR_PORT@\"\n"
           "\tglobal_mgr_ssl_port \"@MGR_SSL_PORT@\"\n"
           "\tglobal_restart \"false\"\n" +
           extra +
           "vdomain address=\"\" name=\"test\"\n"
           "\temail \"admin@localhost\"\n"
           "\tclass type=\"anonymous\" users=\"\" name=\"anonymous\" class_name=\"anonymous\"\n"
           "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n";
}

std::string KorvServer::substitute(const std::string& text) const {
    std::string s = text;
    replace_all(s, "@FTP_PORT@", std::to_string(ftp_port_));
    replace_all(s, "@IMPLICIT_PORT@", std::to_string(implicit_port_));
    replace_all(s, "@MGR_PORT@", std::to_string(mgr_port_));
    replace_all(s, "@MGR_SSL_PORT@", std::to_string(mgr_ssl_port_));
    replace_all(s, "@HOME@", dir_);
    return s;
}

bool KorvServer::rewrite_config(const std::string& config) {
    config_ = config;
    // Written aside and renamed, so that a reload never reads half a file.
    std::string tmp = config_path() + ".new";
    return write_file(tmp, substitute(config_)) && ::rename(tmp.c_str(), config_path().c_str()) == 0;
}

bool KorvServer::start(const std::vector<std::string>& args, bool wait_ftp) {
    if (dir_.empty() || !write_file(config_path(), substitute(config_))) return false;
    std::vector<std::string> argv{binary_, "-test", "-config", config_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = spawn(argv, path("server.out"), path("server.err"), dir_);
    reaped_ = false;
    if (pid_ <= 0) {
        ADD_FAILURE() << "cannot start " << binary_;
        return false;
    }
    if (!wait_ftp) return true;
    auto end = Clock::now() + std::chrono::seconds(30);
    while (ms_left(end) > 0) {
        if (!running()) {
            ADD_FAILURE() << "the server ended at start, status " << status_ << "\n" << stderr_text();
            return false;
        }
        FtpClient probe;
        if (probe.connect(ftp_port_, "127.0.0.1", 1000) && !probe.reply(ms_left(end)).empty()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "no greeting on port " << ftp_port_;
    return false;
}

int KorvServer::run_again(const std::vector<std::string>& args, int timeout_ms) {
    std::vector<std::string> argv{binary_, "-test", "-config", config_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t p = spawn(argv, path("again.out"), path("again.err"), dir_);
    if (p <= 0) return -1;
    int st = 0;
    if (!wait_pid(p, timeout_ms, &st)) {
        ::kill(p, SIGKILL);
        wait_pid(p, 5000, &st);
        return -1;
    }
    return st;
}

KorvServer::Run KorvServer::run_bare(const std::vector<std::string>& args, int timeout_ms) {
    std::vector<std::string> argv{binary_};
    argv.insert(argv.end(), args.begin(), args.end());
    ::remove(path("bare.out").c_str());
    ::remove(path("bare.err").c_str());
    Run r;
    pid_t p = spawn(argv, path("bare.out"), path("bare.err"), dir_);
    if (p <= 0) return r;
    if (!wait_pid(p, timeout_ms, &r.status)) {
        ::kill(p, SIGKILL);
        wait_pid(p, 5000, &r.status);
        r.status = -1;
    }
    r.out = read_file(path("bare.out"));
    r.err = read_file(path("bare.err"));
    return r;
}

int KorvServer::signal(int sig) { return pid_ > 0 && !reaped_ ? ::kill(pid_, sig) : -1; }

bool KorvServer::wait_exit(int timeout_ms, int* status) {
    if (pid_ <= 0) return false;
    if (!reaped_) {
        if (!wait_pid(pid_, timeout_ms, &status_)) return false;
        reaped_ = true;
    }
    if (status) *status = status_;
    return true;
}

bool KorvServer::running() {
    if (pid_ <= 0 || reaped_) return false;
    return !wait_exit(0);
}

bool KorvServer::stop(int timeout_ms) {
    if (pid_ <= 0 || reaped_) return true;
    ::kill(pid_, SIGTERM);
    if (wait_exit(timeout_ms)) return WIFEXITED(status_);
    ::kill(pid_, SIGKILL);
    wait_exit(10000);
    return false;
}

std::string KorvServer::log_text() const { return read_file(path("korvane.log")); }
std::string KorvServer::stderr_text() const { return read_file(path("server.err")); }
std::string KorvServer::stdout_text() const { return read_file(path("server.out")); }

bool KorvServer::wait_log(const std::string& needle, int timeout_ms) const {
    auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (log_text().find(needle) != std::string::npos) return true;
        if (ms_left(end) == 0) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void KorvServer::check_clean() const {
    std::string log = log_text();
    std::string err = stderr_text() + read_file(path("again.err")) + read_file(path("bare.err"));
    for (int i = 0; kCrashMarkers[i] != nullptr; ++i) {
        if (log.find(kCrashMarkers[i]) != std::string::npos)
            ADD_FAILURE() << "the main log holds \"" << kCrashMarkers[i] << "\":\n" << log;
        if (err.find(kCrashMarkers[i]) != std::string::npos)
            ADD_FAILURE() << "standard error holds \"" << kCrashMarkers[i] << "\":\n" << err;
    }
    if (reaped_ && WIFSIGNALED(status_) && WTERMSIG(status_) != SIGKILL)
        ADD_FAILURE() << "the server died by signal " << WTERMSIG(status_);
}

// ---------------------------------------------------------------- FtpClient

FtpClient::~FtpClient() { close(); }

void FtpClient::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    buf_.clear();
}

bool FtpClient::connect(int port, const std::string& address, int timeout_ms, const std::string& source) {
    close();
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) return false;
    if (!source.empty()) {
        sockaddr_in b{};
        b.sin_family = AF_INET;
        if (::inet_pton(AF_INET, source.c_str(), &b.sin_addr) != 1 ||
            ::bind(fd_, reinterpret_cast<sockaddr*>(&b), sizeof b) != 0) {
            close();
            return false;
        }
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (::inet_pton(AF_INET, address.c_str(), &a.sin_addr) != 1) {
        close();
        return false;
    }
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        if (errno != EINPROGRESS) {
            close();
            return false;
        }
        pollfd p{fd_, POLLOUT, 0};
        int err = 0;
        socklen_t len = sizeof err;
        if (::poll(&p, 1, timeout_ms) != 1 || ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len) != 0 ||
            err != 0) {
            close();
            return false;
        }
    }
    return true;
}

bool FtpClient::send_raw(const std::string& bytes) {
    size_t done = 0;
    while (fd_ >= 0 && done < bytes.size()) {
        ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd p{fd_, POLLOUT, 0};
            if (::poll(&p, 1, 10000) != 1) return false;
        } else {
            return false;
        }
    }
    return fd_ >= 0;
}

int FtpClient::fill(int timeout_ms) {
    if (fd_ < 0) return 0;
    pollfd p{fd_, POLLIN, 0};
    int r = ::poll(&p, 1, timeout_ms);
    if (r <= 0) return -1;
    char bf[4096];
    ssize_t n = ::recv(fd_, bf, sizeof bf, 0);
    if (n > 0) {
        buf_.append(bf, static_cast<size_t>(n));
        return 1;
    }
    if (n == 0) return 0;
    return errno == EAGAIN || errno == EINTR ? 1 : -1;
}

std::string FtpClient::reply(int timeout_ms) {
    auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        // A reply ends with a line "ddd text": the code of its first line and a blank.
        size_t at = 0;
        std::string code;
        for (size_t eol; (eol = buf_.find("\r\n", at)) != std::string::npos; at = eol + 2) {
            std::string line = buf_.substr(at, eol - at);
            bool first = code.empty();
            if (first) code = line.substr(0, 3);
            bool dash = line.size() >= 4 && line[3] == '-';
            bool last = first ? !dash : line.size() >= 4 && line.compare(0, 3, code) == 0 && line[3] == ' ';
            if (last) {
                std::string out = buf_.substr(0, eol + 2);
                buf_.erase(0, eol + 2);
                return out;
            }
        }
        int left = ms_left(end);
        if (left == 0 || fill(left) <= 0) return {};
    }
}

std::string FtpClient::cmd(const std::string& line, int timeout_ms) {
    if (!send_line(line)) return {};
    return reply(timeout_ms);
}

std::string FtpClient::read_raw(int timeout_ms, size_t max) {
    auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (buf_.size() < max) {
        int left = ms_left(end);
        if (left == 0 || fill(left) <= 0) break;
    }
    std::string out = buf_.substr(0, max);
    buf_.erase(0, out.size());
    return out;
}

bool FtpClient::wait_closed(int timeout_ms) {
    auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int left = ms_left(end);
        if (left == 0) return false;
        int r = fill(left);
        if (r == 0) return true;
        if (r < 0) return false;
        buf_.clear();
    }
}

}  // namespace korv::test
