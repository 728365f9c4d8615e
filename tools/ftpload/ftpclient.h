// ftpload's FTP client: one control connection on a blocking socket (TLS after AUTH TLS when
// asked), passive data connections, and the timed transfer loops the figures are made of.
#pragma once

#include <string>

#include "net/ssltcp.h"
#include "tools/ftpload/ftpreply.h"

namespace korv {

// Where and as whom to connect.
struct FTPTARGET {
    std::string host = "127.0.0.1";
    int port = 21;
    std::string user;
    std::string pass;
    bool tls = false;        // AUTH TLS, PBSZ 0, PROT P: control and data protected
    int timeout_ms = 45000;  // limit of every single read, write and connect
};
using FtpTarget = FTPTARGET;

// A socket descriptor and its owner.
class Sock {
public:
    Sock() = default;
    explicit Sock(int fd) : fd_(fd) {}
    Sock(Sock&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    Sock& operator=(Sock&& o) noexcept;
    Sock(const Sock&) = delete;
    Sock& operator=(const Sock&) = delete;
    ~Sock() { reset(); }
    int get() const { return fd_; }
    void reset();

private:
    int fd_ = -1;
};

// A connected TCP socket to host:port with read and write limits, or an empty Sock and `why`.
Sock ftp_connect_tcp(const std::string& host, int port, int timeout_ms, bool nodelay, std::string& why);

// The client context shared by every TLS connection of the process (no certificate checks: the
// servers measured use self-signed certificates).
SSL_CTX* ftp_client_ctx();

class FtpConn {
public:
    explicit FtpConn(const FtpTarget& t) : t_(t) {}
    FtpConn(const FtpConn&) = delete;
    FtpConn& operator=(const FtpConn&) = delete;

    // Connects and reads the greeting; with `tls`, protects the control and data channels.
    bool open();
    // USER and PASS, then TYPE I.
    bool login();
    // Sends one command and reads its final reply (preliminary 1xx replies are skipped).
    bool command(const std::string& line, FtpReply& r);
    // NOOP, expecting 200.
    bool noop();
    // QUIT, expecting 221; the connection is closed after it either way.
    bool quit();
    // Reads `name` over a passive data connection; the byte count, or -1.
    long long retr(const std::string& name);
    // Writes `bytes` bytes of filler as `name`; the byte count, or -1.
    long long stor(const std::string& name, long long bytes);
    bool dele(const std::string& name);
    void close();

    bool is_open() const { return ctrl_.get() >= 0; }
    const std::string& error() const { return why_; }

private:
    bool fail(const std::string& why);
    bool send_line(const std::string& line);
    bool read_line(std::string& line);
    bool read_reply(FtpReply& r);
    bool start_tls_on(int fd, SslPtr& ssl, bool reuse_session);
    // PASV and the data connection; for TLS, the handshake runs after `cmd` is sent.
    bool open_data(const std::string& cmd, Sock& data, SslPtr& dssl);

    FtpTarget t_;
    Sock ctrl_;
    SslPtr ssl_;
    std::string in_;  // control bytes read and not yet framed
    std::string why_;
};

}  // namespace korv
