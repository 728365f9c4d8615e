// ftpload's FTP client: blocking sockets with per-call limits, TLS through OpenSSL, passive data
// connections, and the transfer loops (no copies beyond the one the kernel makes).
#include "tools/ftpload/ftpclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "base/fmt.h"

namespace korv {

namespace {

constexpr size_t kBlock = 256 * 1024;  // one read or write of a transfer

std::string sys_error(const char* what) {
    char bf[128];
    const char* s = strerror_r(errno, bf, sizeof bf);
    return strfmt("%s: %s", what, s);
}

std::string tls_error(const char* what) {
    unsigned long e = ERR_get_error();
    char bf[256] = "no library error";
    if (e) ERR_error_string_n(e, bf, sizeof bf);
    ERR_clear_error();
    return strfmt("%s: %s", what, bf);
}

const std::vector<char>& filler() {
    static const std::vector<char> bf = [] {
        std::vector<char> v(kBlock);
        for (size_t i = 0; i < v.size(); i++) v[i] = static_cast<char>('a' + i % 26);
        return v;
    }();
    return bf;
}

// Reads from the socket or its TLS object: bytes, 0 at the end, -1 on an error.
long io_read(int fd, SSL* ssl, char* bf, size_t len) {
    if (!ssl) {
        for (;;) {
            ssize_t n = ::recv(fd, bf, len, 0);
            if (n >= 0 || errno != EINTR) return n;
        }
    }
    errno = 0;
    int n = SSL_read(ssl, bf, static_cast<int>(std::min<size_t>(len, 1 << 30)));
    if (n > 0) return n;
    int e = SSL_get_error(ssl, n);
    // A peer that closes without close_notify has still sent all its data.
    if (e == SSL_ERROR_ZERO_RETURN || (e == SSL_ERROR_SYSCALL && ERR_peek_error() == 0 && errno == 0)) return 0;
    if (e == SSL_ERROR_SSL && ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        ERR_clear_error();
        return 0;
    }
    return -1;
}

// Writes all of `bf`; false on an error.
bool io_write_all(int fd, SSL* ssl, const char* bf, size_t len) {
    while (len > 0) {
        long n;
        if (ssl) {
            n = SSL_write(ssl, bf, static_cast<int>(std::min<size_t>(len, 1 << 30)));
            if (n <= 0) return false;
        } else {
            n = ::send(fd, bf, len, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
        }
        bf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

Sock& Sock::operator=(Sock&& o) noexcept {
    if (this != &o) {
        reset();
        fd_ = o.fd_;
        o.fd_ = -1;
    }
    return *this;
}

void Sock::reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

Sock ftp_connect_tcp(const std::string& host, int port, int timeout_ms, bool nodelay, std::string& why) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &sa.sin_addr) != 1) {
        why = strfmt("not an IPv4 address: %s", host.c_str());
        return Sock();
    }
    Sock s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (s.get() < 0) {
        why = sys_error("socket");
        return Sock();
    }
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(s.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(s.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (nodelay) {
        int one = 1;
        setsockopt(s.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    int rc;
    do rc = ::connect(s.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        why = sys_error(strfmt("connect %s:%d", host.c_str(), port).c_str());
        return Sock();
    }
    return s;
}

SSL_CTX* ftp_client_ctx() {
    static SslCtxPtr ctx;
    static std::once_flag once;
    std::call_once(once, [] {
        ctx.reset(SSL_CTX_new(TLS_client_method()));
        if (!ctx) return;
        SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_NONE, nullptr);
        SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_CLIENT);
    });
    return ctx.get();
}

bool FtpConn::fail(const std::string& why) {
    why_ = why;
    return false;
}

bool FtpConn::send_line(const std::string& line) {
    std::string out = line + "\r\n";
    if (!io_write_all(ctrl_.get(), ssl_.get(), out.data(), out.size()))
        return fail(ssl_ ? tls_error("control write") : sys_error("control write"));
    return true;
}

bool FtpConn::read_line(std::string& line) {
    for (;;) {
        size_t nl = in_.find('\n');
        if (nl != std::string::npos) {
            size_t end = nl > 0 && in_[nl - 1] == '\r' ? nl - 1 : nl;
            line.assign(in_, 0, end);
            in_.erase(0, nl + 1);
            return true;
        }
        char bf[4096];
        long n = io_read(ctrl_.get(), ssl_.get(), bf, sizeof bf);
        if (n == 0) return fail("control connection closed by the server");
        if (n < 0) return fail(ssl_ ? tls_error("control read") : sys_error("control read"));
        in_.append(bf, static_cast<size_t>(n));
    }
}

bool FtpConn::read_reply(FtpReply& r) {
    ReplyFramer framer;
    std::string line;
    for (;;) {
        if (!read_line(line)) return false;
        int got = framer.feed(line, r);
        if (got < 0) return fail(strfmt("malformed reply line: %.100s", line.c_str()));
        if (got > 0) return true;
    }
}

bool FtpConn::command(const std::string& line, FtpReply& r) {
    if (!send_line(line)) return false;
    do
        if (!read_reply(r)) return false;
    while (r.code < 200);
    return true;
}

bool FtpConn::start_tls_on(int fd, SslPtr& ssl, bool reuse_session) {
    SSL_CTX* ctx = ftp_client_ctx();
    if (!ctx) return fail(tls_error("SSL_CTX_new"));
    ERR_clear_error();
    ssl.reset(SSL_new(ctx));
    if (!ssl || !SSL_set_fd(ssl.get(), fd)) return fail(tls_error("SSL_new"));
    if (reuse_session && ssl_) {
        SSL_SESSION* s = SSL_get_session(ssl_.get());
        if (s && SSL_SESSION_is_resumable(s)) SSL_set_session(ssl.get(), s);
    }
    if (SSL_connect(ssl.get()) != 1) return fail(tls_error("TLS handshake"));
    return true;
}

bool FtpConn::open() {
    std::string why;
    in_.clear();
    ssl_.reset();
    ctrl_ = ftp_connect_tcp(t_.host, t_.port, t_.timeout_ms, true, why);
    if (ctrl_.get() < 0) return fail(why);
    FtpReply r;
    do
        if (!read_reply(r)) return false;
    while (r.code < 200);
    if (r.code != 220) return fail("greeting: " + r.text);
    if (!t_.tls) return true;
    if (!command("AUTH TLS", r)) return false;
    if (r.code != 234) return fail("AUTH TLS: " + r.text);
    if (!start_tls_on(ctrl_.get(), ssl_, false)) return false;
    if (!command("PBSZ 0", r)) return false;
    if (r.code != 200) return fail("PBSZ: " + r.text);
    if (!command("PROT P", r)) return false;
    if (r.code != 200) return fail("PROT P: " + r.text);
    return true;
}

bool FtpConn::login() {
    FtpReply r;
    if (!command("USER " + t_.user, r)) return false;
    if (r.code == 331) {
        if (!command("PASS " + t_.pass, r)) return false;
    }
    if (r.code != 230 && r.code != 202) return fail("login: " + r.text);
    if (!command("TYPE I", r)) return false;
    if (r.code != 200) return fail("TYPE I: " + r.text);
    return true;
}

bool FtpConn::noop() {
    FtpReply r;
    if (!command("NOOP", r)) return false;
    return r.code == 200 ? true : fail("NOOP: " + r.text);
}

bool FtpConn::quit() {
    FtpReply r;
    bool ok = command("QUIT", r) && (r.code == 221 || fail("QUIT: " + r.text));
    close();
    return ok;
}

bool FtpConn::dele(const std::string& name) {
    FtpReply r;
    if (!command("DELE " + name, r)) return false;
    return r.code == 250 ? true : fail("DELE: " + r.text);
}

void FtpConn::close() {
    ssl_.reset();
    ctrl_.reset();
    in_.clear();
}

bool FtpConn::open_data(const std::string& cmd, Sock& data, SslPtr& dssl) {
    FtpReply r;
    if (!command("PASV", r)) return false;
    int port = r.code == 227 ? pasv_port(r.text) : -1;
    if (port < 0) return fail("PASV: " + r.text);
    std::string why;
    data = ftp_connect_tcp(t_.host, port, t_.timeout_ms, false, why);
    if (data.get() < 0) return fail("data " + why);
    if (!send_line(cmd)) return false;
    // The server may greet the data connection before or after its preliminary reply; the
    // handshake waits for whichever comes, the reply stays in the control socket meanwhile.
    if (t_.tls && !start_tls_on(data.get(), dssl, true)) return false;
    if (!read_reply(r)) return false;
    if (r.code >= 200) return fail(cmd.substr(0, 4) + ": " + r.text);
    return true;
}

long long FtpConn::retr(const std::string& name) {
    Sock data;
    SslPtr dssl;
    if (!open_data("RETR " + name, data, dssl)) return -1;
    thread_local std::vector<char> bf(kBlock);
    long long got = 0;
    for (;;) {
        long n = io_read(data.get(), dssl.get(), bf.data(), bf.size());
        if (n == 0) break;
        if (n < 0) return fail(dssl ? tls_error("data read") : sys_error("data read")), -1;
        got += n;
    }
    dssl.reset();
    data.reset();
    FtpReply r;
    if (!read_reply(r)) return -1;
    if (r.code != 226 && r.code != 250) return fail("RETR: " + r.text), -1;
    return got;
}

long long FtpConn::stor(const std::string& name, long long bytes) {
    Sock data;
    SslPtr dssl;
    if (!open_data("STOR " + name, data, dssl)) return -1;
    const std::vector<char>& src = filler();
    for (long long sent = 0; sent < bytes;) {
        size_t len = static_cast<size_t>(std::min<long long>(static_cast<long long>(src.size()), bytes - sent));
        if (!io_write_all(data.get(), dssl.get(), src.data(), len))
            return fail(dssl ? tls_error("data write") : sys_error("data write")), -1;
        sent += static_cast<long long>(len);
    }
    if (dssl && SSL_shutdown(dssl.get()) == 0) {
        // Wait for the server's close_notify: closing first would cut its reply to ours short.
        char bf[4096];
        while (io_read(data.get(), dssl.get(), bf, sizeof bf) > 0) {
        }
    }
    dssl.reset();
    data.reset();
    FtpReply r;
    if (!read_reply(r)) return -1;
    if (r.code != 226 && r.code != 250) return fail("STOR: " + r.text), -1;
    return bytes;
}

}  // namespace korv
