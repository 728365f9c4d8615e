// The channel handle used by the whole server: a socket object plus the line buffer and the
// fixed timeouts of line reads, formatted writes and connects.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "net/ssltcp.h"

namespace korv {

constexpr int kChanBufferSize = 1000;       // line buffer of tcp_readline
constexpr int kChanLineWaitMs = 180000;     // tcp_readline and tcp_printf limits
constexpr int kChanPrintfLimit = 32999;     // tcp_printf formats at most this many bytes
constexpr int kChanOpenWaitMs = 180000;     // blocking connect of tcp_open
constexpr int kChanOpenWritableMs = 10000;  // tcp_open's wait for writability afterwards

struct chan {
    std::unique_ptr<SSLTCP> tcp;     // the socket object, made with the channel
    char buffer[kChanBufferSize] = {};  // unread bytes of tcp_readline, from index 0
    int bfbytes = 0;                 // valid bytes in buffer
};
using Chan = chan;

// Life of a channel.
int tcp_init();
void tcp_cleanup();
int tcp_new(Chan** x);   // always 1
void tcp_free(Chan** x);  // closes, frees everything, *x becomes null
void tcp_close(Chan* x);  // blocking mode, then close; the channel can be opened again
int tcp_isopen(Chan* x);
int tcp_get_sockethandle(Chan* x);

// Owner for code that holds a channel in a scope or a member.
struct ChanFree {
    void operator()(Chan* c) const { tcp_free(&c); }
};
using ChanPtr = std::unique_ptr<Chan, ChanFree>;
ChanPtr tcp_new_owned();

// Connecting and listening.
int tcp_open(Chan* x, const char* address, unsigned short port);
int tcp_open_timed(Chan* x, const char* address, unsigned short port, void* p, int msecs);
int tcp_bind(Chan* x, const char* address, unsigned short port, int dolisten, int reuse);
int tcp_listen(Chan* x, const char* address, unsigned short port, int reuse);
int tcp_accept(Chan* listening, Chan* newx);
int tcp_accept_noblock(Chan* listening, Chan* newx, int msecs);
int tcp_set_blocking(Chan* x, int t);
void tcp_setlinger(Chan* x, int xon, int hunds);
int tcp_set_socket_bf_sz(Chan* c, int in, int out, int sz);
int tcp_in_bf_128k(Chan* c);
int tcp_out_bf_128k(Chan* c);
// TCP_NODELAY on (nonzero) or off: control connections turn it on.
int tcp_set_nodelay(Chan* x, int on);

// Reading and writing.
int tcp_read(Chan* x, char* bf, int bfsize);
int tcp_read_timed(Chan* x, char* bf, int bfsize, int msecs);
// tcp_read_timed that waits before it reads: for a caller that has just
// taken everything the connection had (see SSLTcp_Read_Next).
int tcp_read_next(Chan* x, char* bf, int bfsize, int msecs);
int tcp_write(Chan* x, const char* bf, int len);
int tcp_write_timed(Chan* x, const char* bf, int bfsize, int msecs);
int tcp_readline(Chan* x, char* out, int outsz);
int tcp_printf(Chan* x, const char* format, ...) __attribute__((format(printf, 2, 3)));
int tcp_blocking_error(Chan* x);
// Sends part of a file (sendfile where the socket allows it); bytes sent or -1.
long long tcp_sendfile(Chan* x, int fd, off_t* offset, long long count, int msecs);

// Waiting: 1 for any nonzero result of the wait, 0 for a timeout.
int tcp_need_attention(Chan* x, int msecs);
int tcp_need_read_attention(Chan* x, int msecs);
int tcp_can_write(Chan* x, int msecs);

// Addresses and errors. IP buffers hold at least 16 bytes.
int tcp_getipandports(Chan* x, char* lclip, unsigned short* lcl, char* rmtip, unsigned short* rmt);
int tcp_getip(Chan* x, char* rmtip);
void tcp_getmyip(Chan* x, char* ip);
void tcp_getport(Chan* x, int* port);
void tcp_getports(Chan* x, int* lcl, int* rmt);
char* tcp_hostname(char* host, int bfsize);
char* tcp_error(Chan* x, char* outbf, int bfsize);
std::string tcp_error(Chan* x);

}  // namespace korv
