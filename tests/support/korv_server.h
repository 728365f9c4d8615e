// End-to-end test fixture: the real korvane binary started on a configuration
// written into a fresh temporary directory, on ports picked free, always
// stopped at the end; and a small raw-socket FTP client to speak to it.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace korv::test {

// Markers of a crash, a failed assertion or a sanitizer report; none may
// appear in the server's log or its standard error.
extern const char* const kCrashMarkers[];

class KorvServer {
public:
    // `config` is the configuration text. These placeholders are replaced:
    // @FTP_PORT@ @IMPLICIT_PORT@ @MGR_PORT@ @MGR_SSL_PORT@ (free ports picked
    // now) and @HOME@ (the temporary directory, the server's home).
    explicit KorvServer(std::string config, std::string binary = default_binary());
    ~KorvServer();  // stops the server, checks its output, removes the directory
    KorvServer(const KorvServer&) = delete;
    KorvServer& operator=(const KorvServer&) = delete;

    // A plain configuration: one domain for every address, all four ports,
    // logging at debug level, and `extra` lines added to the global settings.
    static std::string basic_config(const std::string& extra = "");

    static std::string default_binary() {
#ifdef KORV_BINARY_DIR
        return std::string(KORV_BINARY_DIR) + "/korvane";
#else
        return "korvane";
#endif
    }

    // Writes the configuration, starts `korvane -test -config FILE args...` and,
    // when `wait_ftp` is set, waits (bounded) until the FTP port answers with a
    // complete reply. False when the server did not come up.
    bool start(const std::vector<std::string>& args = {}, bool wait_ftp = true);
    // Runs the binary once more with the same configuration (e.g. "-stop") and
    // waits for it to end; its exit status, or -1.
    int run_again(const std::vector<std::string>& args, int timeout_ms = 20000);
    // Runs the binary once with exactly `args` (no -test, no -config) in the
    // home and waits for it to end: its wait status (-1 if it had to be
    // killed) and what it wrote on standard output and standard error.
    struct Run {
        int status = -1;
        std::string out, err;
    };
    Run run_bare(const std::vector<std::string>& args, int timeout_ms = 20000);
    // SIGTERM, then SIGKILL after `timeout_ms`. True if it ended on its own.
    bool stop(int timeout_ms = 20000);
    int signal(int sig);
    // Waits for the process to end; true with its wait status in *status.
    bool wait_exit(int timeout_ms, int* status = nullptr);
    bool running();
    pid_t pid() const { return pid_; }

    int ftp_port() const { return ftp_port_; }
    int implicit_port() const { return implicit_port_; }
    int mgr_port() const { return mgr_port_; }
    int mgr_ssl_port() const { return mgr_ssl_port_; }
    const std::string& dir() const { return dir_; }
    std::string config_path() const { return dir_ + "/korvane.ini"; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // Replaces the configuration file (placeholders substituted as before).
    bool rewrite_config(const std::string& config);
    std::string log_text() const;     // the main log, korvane.log in the home
    std::string stderr_text() const;  // the server's standard error
    std::string stdout_text() const;
    // Waits (bounded) until the main log holds `needle`.
    bool wait_log(const std::string& needle, int timeout_ms = 20000) const;
    // Adds a test failure for each crash marker in the log or standard error.
    void check_clean() const;

private:
    std::string substitute(const std::string& text) const;

    std::string binary_;
    std::string config_;
    std::string dir_;
    int ftp_port_ = 0;
    int implicit_port_ = 0;
    int mgr_port_ = 0;
    int mgr_ssl_port_ = 0;
    pid_t pid_ = -1;
    int status_ = 0;
    bool reaped_ = false;
};

// Raw FTP over a socket: exact bytes out, complete replies in.
class FtpClient {
public:
    FtpClient() = default;
    ~FtpClient();
    FtpClient(const FtpClient&) = delete;
    FtpClient& operator=(const FtpClient&) = delete;

    // `source`, when given, is the local address the connection comes from
    // (another loopback address such as 127.0.0.2 is another client).
    bool connect(int port, const std::string& address = "127.0.0.1", int timeout_ms = 10000,
                 const std::string& source = "");
    void close();
    bool is_open() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    bool send_raw(const std::string& bytes);
    bool send_line(const std::string& line) { return send_raw(line + "\r\n"); }
    // One complete reply, multi-line replies included, with its CR LFs; "" when
    // none arrives within the bound or the peer closes first.
    std::string reply(int timeout_ms = 10000);
    // send_line, then reply.
    std::string cmd(const std::string& line, int timeout_ms = 10000);
    // The bytes that arrive within the bound, until `max` or the peer's close.
    std::string read_raw(int timeout_ms, size_t max = 65536);
    // True if the peer closes within the bound (bytes before the close are
    // dropped).
    bool wait_closed(int timeout_ms = 10000);

private:
    // Reads more into buf_; 1 bytes, 0 closed, -1 timeout or error.
    int fill(int timeout_ms);

    int fd_ = -1;
    std::string buf_;
};

// A control connection to 127.0.0.1 from a chosen loopback source address, for
// checks by client address; a failure to connect is a test failure.
class FromClient : public FtpClient {
public:
    FromClient(const std::string& source, int port) {
        EXPECT_TRUE(connect(port, "127.0.0.1", 10000, source)) << "cannot connect from " << source;
    }
};

}  // namespace korv::test
