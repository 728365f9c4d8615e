// The socket object under every channel: one descriptor, the optional TLS object on it, the
// last error with its source, timed reads and writes, and the wait list of listening sockets.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace korv {

// Error codes of the channel layer's own (every other value is an errno).
enum : int {
    SSLTCP_ERR_SSL = -1000,        // "SSL failure."
    SSLTCP_ERR_HANDSHAKE = -1001,  // "SSL Handshake did not complete."
    SSLTCP_ERR_X509 = -1002,       // "SSL Wants a x509 lookup."
    SSLTCP_ERR_PARAM = -1003,      // "Parameter Incorrect or not valid for function call (programmer error)"
};

struct SslFree {
    void operator()(SSL* s) const;
};
struct SslCtxFree {
    void operator()(SSL_CTX* c) const;
};
using SslPtr = std::unique_ptr<SSL, SslFree>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;

// One socket and, once TLS has started on it, its TLS object. Owns both: the destructor closes.
struct SSLTCP {
    int sk = -1;                          // descriptor; -1 when closed
    int ErrorCode = 0;                    // errno or SSLTCP_ERR_*
    const char* ErrorFrom = "";           // static literal naming the failed call
    int errline = 0;                      // source line of the site that recorded the error
    int SSLErrorCode = 0;                 // last SSL_get_error
    unsigned long SSLErrorCodeMsgCode = 0;  // last ERR_get_error
    SslCtxPtr SslCtx;                     // null until TLS starts
    SslPtr Ssl;                           // its presence switches reads and writes to TLS
    bool UncleanEnd = false;              // the peer closed TCP without a TLS close_notify
    bool FailedRead = false;              // a TLS read failed after giving bytes: the next read reports it

    SSLTCP() = default;
    SSLTCP(const SSLTCP&) = delete;
    SSLTCP& operator=(const SSLTCP&) = delete;
    ~SSLTCP();
};
using SSLTcp = SSLTCP;
using pSSLTcp = SSLTCP*;

// Log callback of the layer (a printf-style logger such as emsg).
using SsltcpEmsgFn = int (*)(const char* format, ...);
int ssltcp_setemsg(SsltcpEmsgFn fn);
// Logs through the callback when one is set; a no-op otherwise.
void ssltcp_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Library set-up (once; later calls do nothing) and its counterpart. Any first use of a socket
// sets up the library on its own.
int SSLTcp_init();
// Makes writes to a closed peer fail with EPIPE instead of raising SIGPIPE
// (once; SSLTcp_init and the spawning of children with pipes call it).
void ssltcp_ignore_sigpipe();
void SSLTcp_cleanup();

// Records an error on `x`: its source word, code and the line of the recording site.
void SSLTcp_Record(pSSLTcp x, const char* from, int code, int line = __builtin_LINE());
// Records the outcome of a TLS call that returned `ret`.
void SSLError(const char* functionname, pSSLTcp x, int ret, int line = __builtin_LINE());
// The would-block test: ErrorCode 11, 16 or 115, these three and no others.
int SSLTcp_IsBlocking(pSSLTcp x);
int ssltcp_is_blocking_code(int code);
// "SSLTCP:%03d:%s%s%s%s%s%s": line, source, " tcp:", code, text, TLS label, library text.
void SSLTcp_GetError(pSSLTcp x, std::string& ErrorString);
std::string SSLTcp_GetError(pSSLTcp x);

int SSLTcp_Create(pSSLTcp x, int start_blocking);
int SSLTcp_Prepare_socket(pSSLTcp x, int start_blocking);
int SSLTcp_SetBlocking(pSSLTcp x, int blocking);
int SSLTcp_MakeAddr(pSSLTcp x, void* Addr /* sockaddr_in* */, const char* Address,
                    unsigned short Port, unsigned int null_type);
int SSLTcp_Bind(pSSLTcp x, const char* address, unsigned short port, int dolisten, int reuse);
int SSLTcp_Open(pSSLTcp x, const char* address, unsigned short port, int blocking_open, int msecs);
int SSLTcp_Accept(pSSLTcp listening, pSSLTcp x);
// TLS close_notify (once), shutdown, close; sk becomes -1. The TLS objects stay.
void SSLTcp_Close(pSSLTcp x);

// Waits up to msecs (negative: no limit) for the asked kinds of readiness:
// 1 ready, 0 timeout, -1 closed socket or an exceptional condition.
int SSLTcp_Wait(pSSLTcp x, int read, int write, int except, int msecs);

// Reads: bytes, 0 at the peer's orderly close, -1 on error (a timeout records ErrorCode 11).
int SSLTcp_Read(pSSLTcp x, char* bf, int bfsize);
int SSLTcp_Read_Timed(pSSLTcp x, char* bf, int bfsize, int msecs);
// The timed read for a reader whose last read emptied the connection (a
// control channel between commands): it waits first, saving a read that
// would only find nothing. Results as SSLTcp_Read_Timed.
int SSLTcp_Read_Next(pSSLTcp x, char* bf, int bfsize, int msecs);
// Writes: the untimed one returns bfsize or -1; the timed one returns bfsize, the partial count
// when time ran out after some bytes went, or -1.
int SSLTcp_Write(pSSLTcp x, const char* bf, int bfsize);
int SSLTcp_Write_Timed(pSSLTcp x, const char* bf, int bfsize, int msecs);
// Sends `count` bytes of file `fd` from `*offset` (advanced) with a limit per wait: sendfile on a
// plain socket or on kernel TLS, a read-and-write copy through TLS otherwise. Bytes sent or -1.
long long SSLTcp_SendFile(pSSLTcp x, int fd, off_t* offset, long long count, int msecs);

int SSLTcp_GetIPAndPorts(pSSLTcp x, char* lclip, unsigned short* lcl, char* rmtip, unsigned short* rmt);
int SSLTcp_Set_Socket_BFSZ(pSSLTcp x, int in, int out, int sz);
int SSLTcp_SetNoDelay(pSSLTcp x, int on);
int SSLTCP_ip_to_name(const char* ip_input, std::string& name_output);

// ---- The wait list: callbacks for readable listening sockets. Waits with poll, so any
// descriptor number works.
using WaitFn = int (*)(void* ptr);

struct SKT_PTR {
    int sk = -1;
    void* ptr = nullptr;
    WaitFn fn = nullptr;
};
using Skt_Ptr = SKT_PTR;

struct WAITLIST {
    std::vector<SKT_PTR> info;  // newest first, as added
    int nlocal() const { return static_cast<int>(info.size()); }
};
using WaitList = WAITLIST;

int SSLTcp_AddCreate_WaitList(pSSLTcp x, WaitFn fn, void* ptr, WaitList** wlist);
// Waits up to msecs for any entry and calls fn(ptr) for each ready one; returns the count.
int SSLTcp_Check_WaitList(WaitList* wlist, int msecs, int read, int write, int eexcept);
int SSLTcp_Free_WaitList(WaitList** wlist);

// Monotonic seconds as a double (the layer's clock).
double getdtime();

}  // namespace korv
