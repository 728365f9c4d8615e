// The socket object: creation, addresses, connect, bind, accept, close, the error record and its
// text, readiness waits, timed reads and writes (plain and TLS), file sends and the wait list.
// Every wait is a poll on the descriptor with the caller's limit; nothing sleeps in steps.
#include "net/ssltcp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "base/fmt.h"
#include "base/threads.h"
#include "net/entropy.h"

namespace korv {

namespace {

std::atomic<SsltcpEmsgFn> g_emsg{nullptr};
std::once_flag g_init_once;

// Milliseconds left until `deadline`, never below 0; -1 for no deadline.
struct Deadline {
    bool unlimited = true;
    std::chrono::steady_clock::time_point at{};

    static Deadline in_ms(int ms) {
        Deadline d;
        if (ms >= 0) {
            d.unlimited = false;
            d.at = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        }
        return d;
    }
    int left() const {
        if (unlimited) return -1;
        auto now = std::chrono::steady_clock::now();
        if (now >= at) return 0;
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(at - now).count();
        // Round up so that a wait never ends a fraction early.
        if (std::chrono::steady_clock::time_point(now + std::chrono::milliseconds(ms)) < at) ++ms;
        return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
    }
};

// Polls one descriptor for `events` until the deadline, retrying EINTR with the time left.
// Returns the revents seen (nonzero), 0 on timeout, -1 when poll itself failed.
int poll_until(int fd, short events, const Deadline& dl) {
    for (;;) {
        struct pollfd p{fd, events, 0};
        int r = ::poll(&p, 1, dl.left());
        if (r > 0) return p.revents ? p.revents : events;
        if (r == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

const char* own_error_text(int code) {
    switch (code) {
        case SSLTCP_ERR_SSL: return "SSL failure.";
        case SSLTCP_ERR_HANDSHAKE: return "SSL Handshake did not complete.";
        case SSLTCP_ERR_X509: return "SSL Wants a x509 lookup.";
        case SSLTCP_ERR_PARAM:
            return "Parameter Incorrect or not valid for function call (programmer error)";
        default: return nullptr;
    }
}

const char* ssl_error_label(int code) {
    switch (code) {
        case SSL_ERROR_NONE: return " (SSL_ERROR_NONE):";
        case SSL_ERROR_SSL: return " (SSL_ERROR_SSL):";
        case SSL_ERROR_WANT_READ: return " (SSL_ERROR_WANT_READ):";
        case SSL_ERROR_WANT_WRITE: return " (SSL_ERROR_WANT_WRITE):";
        case SSL_ERROR_WANT_X509_LOOKUP: return " (SSL_ERROR_WANT_X509_LOOKUP):";
        case SSL_ERROR_SYSCALL: return " (SSL_ERROR_SYSCALL):";
        case SSL_ERROR_ZERO_RETURN: return " (SSL_ERROR_ZERO_RETURN):";
        case SSL_ERROR_WANT_CONNECT: return " (SSL_ERROR_WANT_CONNECT):";
        default: return "(SSL_unknown)";
    }
}

// The poll events a TLS call that wants more asks for.
short tls_wants(const SSLTCP* x) {
    return x->SSLErrorCode == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
}

void seed_bytes(const void* p, size_t n) { entropy_add(p, n); }

// Bytes the peer sent that nobody read make close() send a reset, and a reset
// throws away whatever of ours the kernel still holds for the peer (the tail
// of a download). They are read off first, a bounded amount, without waiting.
void drain_unread(int sk) {
    char scrap[4096];
    for (int budget = 64; budget > 0; budget--) {
        ssize_t r = ::recv(sk, scrap, sizeof scrap, MSG_DONTWAIT);
        if (r > 0) continue;
        if (r < 0 && errno == EINTR) continue;
        break;
    }
}

// True when the failed TLS read that set the error queue saw the TCP end with
// no close_notify. Many clients end an upload that way; it is an end of data,
// not a failure. The TLS object is then in a fatal state: it is read no more.
bool note_unclean_end(pSSLTcp x, int ret) {
    if (SSL_get_error(x->Ssl.get(), ret) != SSL_ERROR_SSL) return false;
    if (ERR_GET_REASON(ERR_peek_error()) != SSL_R_UNEXPECTED_EOF_WHILE_READING) return false;
    ERR_clear_error();
    x->UncleanEnd = true;
    return true;
}

// One attempt to read: bytes, 0 at close, -1 with the error recorded.
int read_once(pSSLTcp x, char* bf, int bfsize, const char* ssl_word, short* want) {
    *want = POLLIN;
    if (x->Ssl) {
        if (x->UncleanEnd) return 0;
        if (x->FailedRead) {
            // The failure is already recorded, and the TLS object is in a fatal state.
            SSLTcp_Record(x, x->ErrorFrom, x->ErrorCode == 0 || SSLTcp_IsBlocking(x) ? ECONNRESET : x->ErrorCode);
            return -1;
        }
        ERR_clear_error();
        int r = SSL_read(x->Ssl.get(), bf, bfsize);
        // One SSL_read gives one record (16 KiB at most); the records that have
        // already arrived are taken too, as a plain recv takes all there is, so
        // that an upload reaches the file in large writes.
        while (r > 0 && r < bfsize) {
            ERR_clear_error();
            int more = SSL_read(x->Ssl.get(), bf + r, bfsize - r);
            if (more <= 0) {
                // The bytes taken so far are returned; the next read reports the
                // end or the failure. Both are remembered now: the TLS object will
                // not say them again, and the socket then reads as a plain end.
                if (!note_unclean_end(x, more)) {
                    int e = SSL_get_error(x->Ssl.get(), more);
                    if (e == SSL_ERROR_SSL || e == SSL_ERROR_SYSCALL) {
                        SSLError(ssl_word, x, more);
                        x->FailedRead = true;
                    }
                }
                ERR_clear_error();
                break;
            }
            r += more;
        }
        if (r > 0) return r;
        if (note_unclean_end(x, r)) return 0;
        SSLError(ssl_word, x, r);
        if (x->SSLErrorCode == SSL_ERROR_ZERO_RETURN) return 0;
        *want = tls_wants(x);
        return -1;
    }
    for (;;) {
        ssize_t r = ::recv(x->sk, bf, static_cast<size_t>(bfsize), 0);
        if (r >= 0) return static_cast<int>(r);
        if (errno == EINTR) continue;
        SSLTcp_Record(x, "recv", errno);
        return -1;
    }
}

// One attempt to write: bytes (0 counts as would-block), -1 with the error recorded.
int write_once(pSSLTcp x, const char* bf, int len, short* want) {
    *want = POLLOUT;
    if (x->Ssl) {
        ERR_clear_error();
        int r = SSL_write(x->Ssl.get(), bf, len);
        if (r > 0) return r;
        SSLError("@SSL_write", x, r);
        *want = tls_wants(x);
        return -1;
    }
    for (;;) {
        ssize_t r = ::send(x->sk, bf, static_cast<size_t>(len), MSG_NOSIGNAL);
        if (r >= 0) return static_cast<int>(r);
        if (errno == EINTR) continue;
        SSLTcp_Record(x, "send", errno);
        return -1;
    }
}

int read_with_deadline(pSSLTcp x, char* bf, int bfsize, int msecs, bool timed, bool wait_first = false) {
    bool started = false;
    Deadline dl;
    const char* word = timed ? "ssl_read" : "@SSL_read";
    // A reader that has just emptied the connection waits before its read,
    // rather than after a read that would find nothing; TLS bytes already
    // taken off the socket are read at once.
    if (wait_first && !(x->Ssl && SSL_has_pending(x->Ssl.get()))) {
        dl = Deadline::in_ms(timed ? msecs : -1);
        started = true;
        if (poll_until(x->sk, POLLIN, dl) == 0) {
            SSLTcp_Record(x, x->Ssl ? "SSL_read:Timeout" : "recv:Timeout", EAGAIN);
            return -1;
        }
    }
    for (;;) {
        short want = POLLIN;
        int r = read_once(x, bf, bfsize, word, &want);
        if (r >= 0) return r;
        if (!SSLTcp_IsBlocking(x)) return -1;
        // The clock starts at the first would-block, not on entry.
        if (!started) {
            dl = Deadline::in_ms(timed ? msecs : -1);
            started = true;
        }
        if (poll_until(x->sk, want, dl) == 0) {
            SSLTcp_Record(x, x->Ssl ? "SSL_read:Timeout" : "recv:Timeout", EAGAIN);
            return -1;
        }
    }
}

int write_with_deadline(pSSLTcp x, const char* bf, int bfsize, int msecs, bool timed) {
    int sent = 0;
    bool started = false;
    Deadline dl;
    while (sent < bfsize) {
        short want = POLLOUT;
        int r = write_once(x, bf + sent, bfsize - sent, &want);
        if (r > 0) {
            sent += r;
            continue;
        }
        if (r < 0 && !SSLTcp_IsBlocking(x)) return -1;
        // The clock starts at the first would-block and does not reset when bytes go out.
        if (!started) {
            dl = Deadline::in_ms(timed ? msecs : -1);
            started = true;
        }
        if (poll_until(x->sk, want, dl) == 0) {
            if (sent < 1) {
                x->ErrorCode = EAGAIN;
                return -1;
            }
            return sent;
        }
    }
    return sent;
}

}  // namespace

void SslFree::operator()(SSL* s) const { SSL_free(s); }
void SslCtxFree::operator()(SSL_CTX* c) const { SSL_CTX_free(c); }

SSLTCP::~SSLTCP() { SSLTcp_Close(this); }

double getdtime() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

int ssltcp_setemsg(SsltcpEmsgFn fn) {
    g_emsg.store(fn);
    return 1;
}

void ssltcp_log(const char* format, ...) {
    SsltcpEmsgFn fn = g_emsg.load();
    if (!fn) return;
    va_list ap;
    va_start(ap, format);
    std::string line = vstrfmt(format, ap);
    va_end(ap);
    fn("%s", line.c_str());
}

int SSLTcp_init() {
    std::call_once(g_init_once, [] {
        OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
        // Pooled threads free their random generators before they end, not in a
        // race with the process's exit.
        th_set_end_hook([] { OPENSSL_thread_stop(); });
        ssltcp_ignore_sigpipe();
        struct {
            double t;
            pid_t pid;
            const void* where;
        } seed{getdtime(), getpid(), &seed};
        seed_bytes(&seed, sizeof seed);
    });
    return 1;
}

void ssltcp_ignore_sigpipe() {
    static std::once_flag once;
    std::call_once(once, [] {
        // A write to a closed peer (a socket, or the pipe of a module that has
        // gone) must come back as an error (EPIPE), not end the process.
        // Children get the default back before they run their program.
        struct sigaction sa{};
        sa.sa_handler = SIG_IGN;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGPIPE, &sa, nullptr);
    });
}

void SSLTcp_cleanup() {
    // The library frees its own state at exit; there are no locking callbacks to remove.
}

void SSLTcp_Record(pSSLTcp x, const char* from, int code, int line) {
    x->ErrorFrom = from;
    x->ErrorCode = code;
    x->errline = line;
}

void SSLError(const char* functionname, pSSLTcp x, int ret, int line) {
    int saved_errno = errno;
    x->SSLErrorCode = x->Ssl ? SSL_get_error(x->Ssl.get(), ret) : SSL_ERROR_SSL;
    x->SSLErrorCodeMsgCode = ERR_get_error();
    ERR_clear_error();
    x->ErrorFrom = functionname;
    x->errline = line;
    switch (x->SSLErrorCode) {
        case SSL_ERROR_NONE: break;
        case SSL_ERROR_SSL: x->ErrorCode = SSLTCP_ERR_SSL; break;
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
        case SSL_ERROR_WANT_CONNECT:
        case SSL_ERROR_WANT_ACCEPT: x->ErrorCode = EAGAIN; break;
        case SSL_ERROR_WANT_X509_LOOKUP: x->ErrorCode = SSLTCP_ERR_X509; break;
        case SSL_ERROR_SYSCALL: x->ErrorCode = saved_errno ? saved_errno : ENOENT; break;
        case SSL_ERROR_ZERO_RETURN: x->ErrorCode = ECONNRESET; break;
        default: break;
    }
}

int ssltcp_is_blocking_code(int code) {
    return code == EAGAIN || code == EBUSY || code == EINPROGRESS;
}

int SSLTcp_IsBlocking(pSSLTcp x) { return ssltcp_is_blocking_code(x->ErrorCode); }

void SSLTcp_GetError(pSSLTcp x, std::string& ErrorString) {
    std::string code = x->ErrorCode ? strfmt("%d:", x->ErrorCode) : std::string();
    const char* text = own_error_text(x->ErrorCode);
    char sbuf[256];
    if (!text) text = strerror_r(x->ErrorCode, sbuf, sizeof sbuf);
    const char* label = x->Ssl ? ssl_error_label(x->SSLErrorCode) : "";
    char lib[1000] = "";
    if (x->SSLErrorCodeMsgCode) ERR_error_string_n(x->SSLErrorCodeMsgCode, lib, sizeof lib);
    ErrorString = strfmt("SSLTCP:%03d:%s%s%s%s%s%s", x->errline, x->ErrorFrom ? x->ErrorFrom : "", " tcp:",
                         code.c_str(), text, label, lib);
}

std::string SSLTcp_GetError(pSSLTcp x) {
    std::string s;
    SSLTcp_GetError(x, s);
    return s;
}

int SSLTcp_SetBlocking(pSSLTcp x, int blocking) {
    int on = blocking ? 0 : 1;
    if (::ioctl(x->sk, FIONBIO, &on) != 0) {
        SSLTcp_Record(x, "socket_ioctl:setblockingparam", errno);
        return 0;
    }
    return 1;
}

int SSLTcp_Prepare_socket(pSSLTcp x, int start_blocking) {
    int flags = ::fcntl(x->sk, F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC)) ::fcntl(x->sk, F_SETFD, flags | FD_CLOEXEC);
    int ok = SSLTcp_SetBlocking(x, start_blocking);
    return start_blocking ? 1 : ok;
}

int SSLTcp_Create(pSSLTcp x, int start_blocking) {
    SSLTcp_init();
    // Close-on-exec from birth, so that a child forked by another thread never inherits it.
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        SSLTcp_Record(x, "socket", errno);
        return 0;
    }
    x->sk = s;
    seed_bytes(&s, sizeof s);
    return SSLTcp_Prepare_socket(x, start_blocking);
}

int SSLTcp_MakeAddr(pSSLTcp x, void* Addr, const char* Address, unsigned short Port, unsigned int null_type) {
    auto* sa = static_cast<sockaddr_in*>(Addr);
    std::memset(sa, 0, sizeof *sa);
    sa->sin_family = AF_INET;
    sa->sin_port = htons(Port);
    if (!Address || !*Address) {
        sa->sin_addr.s_addr = htonl(null_type);
        return 1;
    }
    in_addr_t a = ::inet_addr(Address);
    if (a != INADDR_NONE) {  // "255.255.255.255" goes on to the name lookup
        sa->sin_addr.s_addr = a;
        return 1;
    }
    std::string name(Address, strnlen(Address, 999));
    size_t colon = name.find(':');
    if (colon != std::string::npos) name.resize(colon);
    struct addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* res = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &hints, &res) != 0 || !res) {
        SSLTcp_Record(x, "gethostbyname", ENOENT);
        return 0;
    }
    sa->sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    ::freeaddrinfo(res);
    return 1;
}

int SSLTcp_Bind(pSSLTcp x, const char* address, unsigned short port, int dolisten, int reuse) {
    SSLTcp_init();
    sockaddr_in sa;
    if (!SSLTcp_MakeAddr(x, &sa, address, port, INADDR_ANY)) return 0;
    if (x->sk == -1 && !SSLTcp_Create(x, 1)) return 0;
    if (reuse) {
        int v = -1;
        if (::setsockopt(x->sk, SOL_SOCKET, SO_REUSEADDR, &v, sizeof v) != 0) {
            SSLTcp_Record(x, "setsockopt:reuse", errno);
            return 0;
        }
    }
    if (::bind(x->sk, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        SSLTcp_Record(x, "bind", errno);
        return 0;
    }
    if (dolisten && ::listen(x->sk, SOMAXCONN) != 0) {
        SSLTcp_Record(x, "listen", errno);
        return 0;
    }
    return 1;
}

int SSLTcp_Open(pSSLTcp x, const char* address, unsigned short port, int blocking_open, int msecs) {
    sockaddr_in sa;
    if (!SSLTcp_MakeAddr(x, &sa, address, port, INADDR_ANY)) return 0;
    if (x->sk == -1 && !SSLTcp_Create(x, blocking_open)) return 0;
    int r;
    do {
        r = ::connect(x->sk, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
    } while (r != 0 && errno == EINTR && blocking_open);
    if (r != 0) {
        int err = errno;
        SSLTcp_Record(x, "connect", err);
        if (blocking_open && !SSLTcp_IsBlocking(x)) return 0;
        // The connection is judged by writability alone; a refused connect shows up at the
        // first read or write.
        int ready = poll_until(x->sk, POLLOUT, Deadline::in_ms(msecs));
        if (ready <= 0) {
            SSLTcp_Record(x, "select:FD_ISSET", err ? err : ETIMEDOUT);
            if (x->ErrorCode) return 0;
        }
    }
    return SSLTcp_SetBlocking(x, 0);
}

int SSLTcp_Accept(pSSLTcp listening, pSSLTcp x) {
    if (x->sk != -1) SSLTcp_Close(x);
    int s;
    do {
        s = ::accept4(listening->sk, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    } while (s < 0 && errno == EINTR);
    if (s <= 0) {
        int err = s < 0 ? errno : 0;
        if (s == 0) x->sk = 0;  // descriptor 0 counts as a failure; the channel still owns it
        SSLTcp_Record(x, "accept", err);
        return 0;
    }
    x->sk = s;
    seed_bytes(&s, sizeof s);
    return 1;
}

void SSLTcp_Close(pSSLTcp x) {
    if (x->sk == -1) return;
    // One close_notify only: a second SSL_shutdown would wait for the peer's, and on a
    // blocking socket that wait has no end. None after a fatal end of the TLS object.
    if (x->Ssl && !x->UncleanEnd && !x->FailedRead && !(SSL_get_shutdown(x->Ssl.get()) & SSL_SENT_SHUTDOWN)) {
        ERR_clear_error();
        SSL_shutdown(x->Ssl.get());
        ERR_clear_error();
    }
    drain_unread(x->sk);
    ::shutdown(x->sk, SHUT_RDWR);
    ::close(x->sk);
    x->sk = -1;
    x->UncleanEnd = false;
    x->FailedRead = false;
}

int SSLTcp_Wait(pSSLTcp x, int read, int write, int except, int msecs) {
    if (x->sk == -1) return -1;
    // Bytes already decrypted inside the TLS object are ready whatever the socket says.
    if (read && x->Ssl && SSL_pending(x->Ssl.get()) > 0) return 1;
    short ev = static_cast<short>((read ? POLLIN : 0) | (write ? POLLOUT : 0) | (except ? POLLPRI : 0));
    int r = poll_until(x->sk, ev, Deadline::in_ms(msecs));
    if (r == 0) return 0;
    if (except && r > 0 && (r & POLLPRI)) {
        SSLTcp_Record(x, "select:FD_ISSET(except)", errno);
        return -1;
    }
    return 1;
}

int SSLTcp_Read(pSSLTcp x, char* bf, int bfsize) { return read_with_deadline(x, bf, bfsize, -1, false); }

int SSLTcp_Read_Timed(pSSLTcp x, char* bf, int bfsize, int msecs) {
    return read_with_deadline(x, bf, bfsize, msecs < 0 ? 0 : msecs, true);
}

int SSLTcp_Read_Next(pSSLTcp x, char* bf, int bfsize, int msecs) {
    return read_with_deadline(x, bf, bfsize, msecs < 0 ? 0 : msecs, true, true);
}

int SSLTcp_Write(pSSLTcp x, const char* bf, int bfsize) {
    int r = write_with_deadline(x, bf, bfsize, -1, false);
    return r == bfsize ? bfsize : -1;
}

int SSLTcp_Write_Timed(pSSLTcp x, const char* bf, int bfsize, int msecs) {
    return write_with_deadline(x, bf, bfsize, msecs < 0 ? 0 : msecs, true);
}

long long SSLTcp_SendFile(pSSLTcp x, int fd, off_t* offset, long long count, int msecs) {
    long long sent = 0;
    if (x->Ssl && !BIO_get_ktls_send(SSL_get_wbio(x->Ssl.get()))) {
        // TLS in user space: read blocks of the file and write them through the TLS object.
        static constexpr size_t kBlock = 256 * 1024;
        std::unique_ptr<char[]> block(new char[kBlock]);
        while (sent < count) {
            size_t want = static_cast<size_t>(std::min<long long>(count - sent, kBlock));
            ssize_t n = ::pread(fd, block.get(), want, *offset);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return sent > 0 ? sent : (n == 0 ? 0 : -1);
            int w = SSLTcp_Write_Timed(x, block.get(), static_cast<int>(n), msecs);
            if (w < 0) return sent > 0 ? sent : -1;
            *offset += w;
            sent += w;
            if (w < n) return sent;
        }
        return sent;
    }
    bool started = false;
    Deadline dl;
    while (sent < count) {
        ssize_t n;
        if (x->Ssl) {
            ERR_clear_error();
            size_t chunk = static_cast<size_t>(std::min<long long>(count - sent, 1 << 20));
            n = SSL_sendfile(x->Ssl.get(), fd, *offset, chunk, 0);
            if (n > 0) *offset += n;
            if (n < 0) {
                SSLError("@SSL_write", x, static_cast<int>(n));
                if (!SSLTcp_IsBlocking(x)) return sent > 0 ? sent : -1;
                n = 0;
            }
        } else {
            size_t chunk = static_cast<size_t>(std::min<long long>(count - sent, 1 << 30));
            n = ::sendfile(x->sk, fd, offset, chunk);
            if (n < 0) {
                if (errno == EINTR) continue;
                SSLTcp_Record(x, "send", errno);
                if (!SSLTcp_IsBlocking(x)) return sent > 0 ? sent : -1;
                n = 0;
            } else if (n == 0) {
                return sent;  // the file ended early
            }
        }
        if (n > 0) {
            sent += n;
            continue;
        }
        if (!started) {
            dl = Deadline::in_ms(msecs < 0 ? 0 : msecs);
            started = true;
        }
        if (poll_until(x->sk, POLLOUT, dl) == 0) {
            if (sent < 1) {
                x->ErrorCode = EAGAIN;
                return -1;
            }
            return sent;
        }
    }
    return sent;
}

int SSLTcp_GetIPAndPorts(pSSLTcp x, char* lclip, unsigned short* lcl, char* rmtip, unsigned short* rmt) {
    if (x->sk == -1) {
        SSLTcp_Record(x, "SSLTcp_GetIPAndPorts", SSLTCP_ERR_PARAM);
        return 0;
    }
    struct Side {
        char* ip;
        unsigned short* port;
        bool peer;
    } sides[2] = {{rmtip, rmt, true}, {lclip, lcl, false}};
    for (const Side& s : sides) {
        if (!s.ip && !s.port) continue;
        sockaddr_in sa{};
        socklen_t len = sizeof sa;
        int r = s.peer ? ::getpeername(x->sk, reinterpret_cast<sockaddr*>(&sa), &len)
                       : ::getsockname(x->sk, reinterpret_cast<sockaddr*>(&sa), &len);
        if (r != 0) {
            SSLTcp_Record(x, s.peer ? "getpeername" : "getsockname", errno);
            return 0;
        }
        if (s.ip) {
            char text[INET_ADDRSTRLEN] = "";
            ::inet_ntop(AF_INET, &sa.sin_addr, text, sizeof text);
            std::memcpy(s.ip, text, sizeof text);  // at most 16 bytes with the terminator
            seed_bytes(text, std::strlen(text));
        }
        if (s.port) {
            *s.port = ntohs(sa.sin_port);
            seed_bytes(s.port, sizeof *s.port);
        }
    }
    return 1;
}

namespace {

int set_one_buffer(pSSLTcp x, int which, int sz) {
    int cur = 0;
    socklen_t len = sizeof cur;
    if (::getsockopt(x->sk, SOL_SOCKET, which, &cur, &len) == 0 && cur == sz) return 1;
    ::setsockopt(x->sk, SOL_SOCKET, which, &sz, sizeof sz);
    len = sizeof cur;
    if (::getsockopt(x->sk, SOL_SOCKET, which, &cur, &len) == 0 && cur == sz) return 1;
    // The kernel reports its own size (Linux doubles the request). Callers
    // ignore this result, so nothing is recorded: a later failure's text must
    // not name this call.
    return 0;
}

}  // namespace

int SSLTcp_Set_Socket_BFSZ(pSSLTcp x, int in, int out, int sz) {
    int r = 0;
    if (in) r = set_one_buffer(x, SO_RCVBUF, sz);
    if (out) r = set_one_buffer(x, SO_SNDBUF, sz);
    return r;
}

int SSLTcp_SetNoDelay(pSSLTcp x, int on) {
    int v = on ? 1 : 0;
    if (::setsockopt(x->sk, IPPROTO_TCP, TCP_NODELAY, &v, sizeof v) != 0) {
        SSLTcp_Record(x, "setsockopt:nodelay", errno);
        return 0;
    }
    return 1;
}

int SSLTCP_ip_to_name(const char* ip_input, std::string& name_output) {
    SSLTCP rec;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    char host[NI_MAXHOST] = "";
    if (!ip_input || ::inet_pton(AF_INET, ip_input, &sa.sin_addr) != 1 ||
        ::getnameinfo(reinterpret_cast<sockaddr*>(&sa), sizeof sa, host, sizeof host, nullptr, 0,
                      NI_NAMEREQD) != 0) {
        SSLTcp_Record(&rec, "gethostbyaddr:NULL", ENOENT);
        SSLTcp_GetError(&rec, name_output);
        return 0;
    }
    if (!host[0]) {
        SSLTcp_Record(&rec, "gethostbyaddr:h_name:NULL", ENOENT);
        SSLTcp_GetError(&rec, name_output);
        return 0;
    }
    name_output = host;
    return 1;
}

// ---- Wait list.

int SSLTcp_AddCreate_WaitList(pSSLTcp x, WaitFn fn, void* ptr, WaitList** wlist) {
    if (!wlist) return 0;
    if (!*wlist) *wlist = new WaitList;
    SKT_PTR e;
    e.sk = x->sk;
    e.fn = fn;
    e.ptr = ptr;
    (*wlist)->info.insert((*wlist)->info.begin(), e);
    return 1;
}

int SSLTcp_Check_WaitList(WaitList* wlist, int msecs, int read, int write, int eexcept) {
    if (!wlist) return 0;
    short ev = static_cast<short>((read ? POLLIN : 0) | (write ? POLLOUT : 0) | (eexcept ? POLLPRI : 0));
    std::vector<pollfd> fds;
    fds.reserve(wlist->info.size());
    for (const SKT_PTR& e : wlist->info) fds.push_back(pollfd{e.sk, ev, 0});
    int r = ::poll(fds.data(), fds.size(), msecs);
    if (r <= 0) return 0;
    int calls = 0;
    // Entries are copied first: a callback may not touch the list, but it may be long.
    std::vector<SKT_PTR> ready;
    for (size_t i = 0; i < fds.size(); ++i)
        if (fds[i].revents) ready.push_back(wlist->info[i]);
    for (const SKT_PTR& e : ready) {
        if (e.fn) e.fn(e.ptr);
        ++calls;
    }
    return calls;
}

int SSLTcp_Free_WaitList(WaitList** wlist) {
    if (wlist) {
        delete *wlist;
        *wlist = nullptr;
    }
    return 1;
}

}  // namespace korv
