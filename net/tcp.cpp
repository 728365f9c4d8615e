// The Chan handle: life of a channel, connect/listen/accept with the fixed limits, line reads
// through the channel's own buffer, formatted writes, readiness waits and address queries.
#include "net/tcp.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/fmt.h"
#include "net/entropy.h"

namespace korv {

int tcp_init() { return SSLTcp_init(); }

void tcp_cleanup() { SSLTcp_cleanup(); }

int tcp_new(Chan** x) {
    SSLTcp_init();
    auto c = std::make_unique<Chan>();
    c->tcp = std::make_unique<SSLTCP>();
    Chan* raw = c.get();
    entropy_add(&raw, sizeof raw);
    *x = c.release();
    return 1;
}

ChanPtr tcp_new_owned() {
    Chan* c = nullptr;
    tcp_new(&c);
    return ChanPtr(c);
}

void tcp_free(Chan** x) {
    if (!x || !*x) return;
    std::unique_ptr<Chan> owned(*x);
    *x = nullptr;
    if (owned->tcp) {
        SSLTcp_Close(owned->tcp.get());
        owned->tcp->Ssl.reset();
        owned->tcp->SslCtx.reset();
    }
}

void tcp_close(Chan* x) {
    if (x->tcp->sk == -1) return;
    // The TLS close_notify goes out while the socket cannot block, so that a peer that reads
    // nothing cannot hold the closing thread; the descriptor then closes in blocking mode.
    if (SSL* ssl = x->tcp->Ssl.get(); ssl && !x->tcp->UncleanEnd && !x->tcp->FailedRead) {
        ERR_clear_error();
        SSL_shutdown(ssl);
        ERR_clear_error();
    }
    tcp_set_blocking(x, 1);
    SSLTcp_Close(x->tcp.get());
}

int tcp_isopen(Chan* x) { return x->tcp->sk != -1; }

int tcp_get_sockethandle(Chan* x) { return x->tcp->sk; }

int tcp_open(Chan* x, const char* address, unsigned short port) {
    if (!SSLTcp_Open(x->tcp.get(), address, port, 1, kChanOpenWaitMs)) return 0;
    int r = tcp_set_blocking(x, 0);
    if (r) tcp_can_write(x, kChanOpenWritableMs);
    return r;
}

int tcp_open_timed(Chan* x, const char* address, unsigned short port, void* /*p*/, int msecs) {
    return SSLTcp_Open(x->tcp.get(), address, port, 0, msecs);
}

int tcp_bind(Chan* x, const char* address, unsigned short port, int dolisten, int reuse) {
    return SSLTcp_Bind(x->tcp.get(), address, port, dolisten, reuse);
}

int tcp_listen(Chan* x, const char* address, unsigned short port, int reuse) {
    return SSLTcp_Bind(x->tcp.get(), address, port, 1, reuse);
}

int tcp_accept(Chan* listening, Chan* newx) { return SSLTcp_Accept(listening->tcp.get(), newx->tcp.get()); }

int tcp_accept_noblock(Chan* listening, Chan* newx, int msecs) {
    tcp_set_blocking(listening, 0);
    if (SSLTcp_Wait(listening->tcp.get(), 1, 0, 0, msecs) != 1) return 0;
    return tcp_accept(listening, newx);
}

int tcp_set_blocking(Chan* x, int t) { return SSLTcp_SetBlocking(x->tcp.get(), t); }

void tcp_setlinger(Chan* x, int xon, int hunds) {
    struct linger l{};
    l.l_onoff = xon ? 1 : 0;
    l.l_linger = hunds;
    if (::setsockopt(x->tcp->sk, SOL_SOCKET, SO_LINGER, &l, sizeof l) != 0)
        SSLTcp_Record(x->tcp.get(), "setlinger: failed", errno);
}

int tcp_set_socket_bf_sz(Chan* c, int in, int out, int sz) { return SSLTcp_Set_Socket_BFSZ(c->tcp.get(), in, out, sz); }

int tcp_in_bf_128k(Chan* c) { return tcp_set_socket_bf_sz(c, 1, 0, 131072); }

int tcp_out_bf_128k(Chan* c) { return tcp_set_socket_bf_sz(c, 0, 1, 131072); }

int tcp_set_nodelay(Chan* x, int on) { return SSLTcp_SetNoDelay(x->tcp.get(), on); }

int tcp_read(Chan* x, char* bf, int bfsize) { return SSLTcp_Read(x->tcp.get(), bf, bfsize); }

int tcp_read_timed(Chan* x, char* bf, int bfsize, int msecs) {
    return SSLTcp_Read_Timed(x->tcp.get(), bf, bfsize, msecs);
}

int tcp_read_next(Chan* x, char* bf, int bfsize, int msecs) {
    return SSLTcp_Read_Next(x->tcp.get(), bf, bfsize, msecs);
}

int tcp_write(Chan* x, const char* bf, int len) { return SSLTcp_Write(x->tcp.get(), bf, len); }

int tcp_write_timed(Chan* x, const char* bf, int bfsize, int msecs) {
    return SSLTcp_Write_Timed(x->tcp.get(), bf, bfsize, msecs);
}

long long tcp_sendfile(Chan* x, int fd, off_t* offset, long long count, int msecs) {
    return SSLTcp_SendFile(x->tcp.get(), fd, offset, count, msecs);
}

// One line through the channel's buffer. The result counts the bytes taken from the stream
// (line end included); `out` holds the line cut at its first CR or LF. A line longer than the
// buffer or than `out` arrives in pieces; 0 and -1 leave a partial line in the buffer.
int tcp_readline(Chan* x, char* out, int outsz) {
    if (!out || outsz < 2) return -1;
    const int limit = outsz - 2;
    constexpr int kLast = kChanBufferSize - 1;  // 999: room for the terminator
    if (x->bfbytes < 0 || x->bfbytes > kLast) x->bfbytes = 0;
    x->buffer[x->bfbytes] = 0;
    int end = -1;
    for (;;) {
        if (x->bfbytes > 0) {
            const void* nl = std::memchr(x->buffer, '\n', static_cast<size_t>(x->bfbytes));
            if (nl) {
                end = static_cast<int>(static_cast<const char*>(nl) - x->buffer);
            } else {
                if (x->bfbytes > kLast - 2) end = kLast - 1;  // a full buffer ends the line at 998
                if (x->bfbytes >= limit) end = outsz - 2;
            }
            if (end >= 0) break;
        }
        int r = tcp_read_timed(x, x->buffer + x->bfbytes, kLast - x->bfbytes, kChanLineWaitMs);
        if (r < 1) return r;
        x->bfbytes += r;
        x->buffer[x->bfbytes] = 0;
    }
    int len = end + 1;
    if (len >= limit) len = limit;
    // Bytes of `out` beyond the valid ones come from the terminator kept after them.
    int avail = std::min(len, x->bfbytes + 1);
    std::memcpy(out, x->buffer, static_cast<size_t>(avail));
    std::memset(out + avail, 0, static_cast<size_t>(len - avail));
    out[len] = 0;
    // Whatever follows the line's end stays; bytes of an over-long line before it are dropped.
    int rest = x->bfbytes - (end + 1);
    if (rest > 0) {
        std::memmove(x->buffer, x->buffer + end + 1, static_cast<size_t>(rest));
        x->bfbytes = rest;
    } else {
        x->bfbytes = 0;
    }
    x->buffer[x->bfbytes] = 0;
    for (int i = 0; i < len; ++i)
        if (out[i] == '\r' || out[i] == '\n') out[i] = 0;
    return len;
}

int tcp_printf(Chan* x, const char* format, ...) {
    if (!format) return -1;
    va_list ap;
    va_start(ap, format);
    char bf[kChanPrintfLimit + 1];
    int n = std::vsnprintf(bf, sizeof bf, format, ap);
    va_end(ap);
    if (n < 0) return -1;
    if (n > kChanPrintfLimit) n = kChanPrintfLimit;
    return tcp_write_timed(x, bf, n, kChanLineWaitMs);
}

int tcp_blocking_error(Chan* x) { return SSLTcp_IsBlocking(x->tcp.get()); }

int tcp_need_attention(Chan* x, int msecs) { return SSLTcp_Wait(x->tcp.get(), 1, 1, 1, msecs) != 0; }

int tcp_need_read_attention(Chan* x, int msecs) { return SSLTcp_Wait(x->tcp.get(), 1, 0, 0, msecs) != 0; }

int tcp_can_write(Chan* x, int msecs) { return SSLTcp_Wait(x->tcp.get(), 0, 1, 0, msecs) != 0; }

int tcp_getipandports(Chan* x, char* lclip, unsigned short* lcl, char* rmtip, unsigned short* rmt) {
    return SSLTcp_GetIPAndPorts(x->tcp.get(), lclip, lcl, rmtip, rmt);
}

int tcp_getip(Chan* x, char* rmtip) { return tcp_getipandports(x, nullptr, nullptr, rmtip, nullptr); }

void tcp_getmyip(Chan* x, char* ip) { tcp_getipandports(x, ip, nullptr, nullptr, nullptr); }

void tcp_getport(Chan* x, int* port) {
    unsigned short p = 0;
    tcp_getipandports(x, nullptr, &p, nullptr, nullptr);
    *port = p;
}

void tcp_getports(Chan* x, int* lcl, int* rmt) {
    unsigned short l = 0, r = 0;
    tcp_getipandports(x, nullptr, &l, nullptr, &r);
    *lcl = l;
    *rmt = r;
}

char* tcp_hostname(char* host, int bfsize) {
    SSLTcp_init();
    if (!host || bfsize < 1 || ::gethostname(host, static_cast<size_t>(bfsize)) != 0) return nullptr;
    host[bfsize - 1] = 0;
    entropy_add(host, static_cast<size_t>(bfsize));
    return host;
}

char* tcp_error(Chan* x, char* outbf, int bfsize) {
    if (!outbf || bfsize < 1) return outbf;
    std::string s = SSLTcp_GetError(x->tcp.get());
    size_t n = std::min(s.size(), static_cast<size_t>(bfsize - 1));
    std::memcpy(outbf, s.data(), n);
    outbf[n] = 0;
    return outbf;
}

std::string tcp_error(Chan* x) { return SSLTcp_GetError(x->tcp.get()); }

}  // namespace korv
