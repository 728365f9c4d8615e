// A small blocking FTP client on the channels of net/: the control connection,
// login with optional explicit TLS (the remote's certificate checked), active
// and passive data connections, LIST into a word list, LIST line parsing, and
// RETR in stream and block mode. Used by the mirror engine; it stands alone.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

#include "base/lists.h"
#include "net/tcp.h"

namespace korv {

inline constexpr int kFtpDefaultPort = 21;
inline constexpr int kFtpDefaultToutMs = 120000;   // data read limit
inline constexpr int kFtpReplyLineMax = 1000;      // each reply line and listing line
inline constexpr int kFtpBlockBuffer = 66000;      // the receive buffer of one block
inline constexpr int kFtpStreamBuffer = 262144;    // the receive buffer of one stream-mode read
inline constexpr int kFtpNameMax = 200;            // a listed name is cut here
inline constexpr int kFtpListenRounds = 60;        // active mode: one-second waits for the connect
inline constexpr int kFtpPasvOpenMs = 10000;       // passive mode: the connect
inline constexpr int kFtpPasvWritableMs = 30000;   // passive mode: the wait until the channel is up
inline constexpr int kFtpListMaxDefault = 200000;  // listing lines before the listing is refused

// Progress callback: a word ("get", "size", "accept", "read", "done_ok",
// "done_failed - ...", "list"), a number and the link's tag. 0 stops.
using FtpProgressFn = int (*)(const char* text, long long size, int tag);

struct ftplink {
    ChanPtr cmd;     // control channel
    ChanPtr data;    // data channel
    ChanPtr listen;  // listener for active mode
    unsigned short passive_port = 0;
    int passive = 0;
    int xisascii = 0;
    int isssl = 0;
    int fntag = 0;
    int tout = kFtpDefaultToutMs;
    int aborted_transfer = 0;
    int isblock = 0;
    std::atomic<int> hurry_exit{0};  // set from another thread to stop a read
    FtpProgressFn fn = nullptr;
    std::string passive_host;
    std::string user, host, pass;
    long long bytes_in = 0;
    // Beyond the classic record: a retrieval that passes max_bytes fails (0:
    // no limit), a listing stops at list_max lines, and with isssl the
    // remote's certificate is checked against the system's trust store plus
    // ca_file (when it exists) and against the host name.
    long long max_bytes = 0;
    int list_max = kFtpListMaxDefault;
    std::string ca_file;
    // A final reply that came on the control channel while data was awaited
    // (a 226 read early); the reply reading after the transfer takes it first.
    std::string held_reply;
};
using FtpLink = ftplink;

// Module settings, process-wide, set at start.
void ftp_set_pret(int on);
void ftplib_use_host(int on);
void ftp_setabort(int on);
void ftp_setblock(int on);
using FtpDebugFn = int (*)(const char* format, ...);
void ftp_setdebug(FtpDebugFn fn);

int ftp_new(ftplink** ff);
void ftp_free(ftplink** ff);
// Owner for a link held in a scope.
struct FtpLinkFree {
    void operator()(ftplink* l) const { ftp_free(&l); }
};

void ftp_link_set(ftplink* l, const char* host, const char* user, const char* pass);
void ftp_link_setascii(ftplink* l, int t);
void ftp_set_timeout(ftplink* l, int msec);
void ftp_set_callback(ftplink* l, int cbtag, FtpProgressFn fn);

int ftp_open_link(ftplink* l, std::string& reason);
int ftp_login_link(ftplink* l, std::string& reason);
int ftp_link_build(ftplink** l, const char* host, const char* user, const char* pass, std::string& reason);
// With start_ssl the control channel is TLS before USER; `link` (may be null)
// supplies the certificate check.
int ftp_login(Chan* c, int start_ssl, const char* to, const char* user, const char* pass, std::string& reason,
              ftplink* link = nullptr);

// Replies. `status`, when not empty, is a line already read: it is used
// first and cleared.
int ftp_response(Chan* c, int expected, int maxval, int allines, int* ismultiline, std::string& reason);
int ftp_response2(Chan* c, int expected, int maxval, int allines, int* ismultiline, std::string& reason,
                  std::string& status);
int ftp_get_a_response(Chan* c, int expected, int maxval, std::string& reason);
int ftp_result(ftplink* l, int expected, int maxval, std::string& reason);
int ftp_printf(ftplink* l, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Data connections.
int ftp_decode_pasv(ftplink* l, const char* reply);
int ftp_setup_data_port_link(ftplink* l, std::string& reason, const char* cmd, const char* args);
int ftp_initiate_data_port(ftplink* l, std::string& reason, std::string& status);
void ftp_release_port(ftplink* l);

// Listing.
int ftp_link_list_wordlist(ftplink* l, const char* cmd, const char* rmtname, WordlistPtr& w, std::string& reason);
int ftp_list_wordlist(ftplink* l, const char* fname, Chan* cdata, WordlistPtr& w, std::string& reason);

// Retrieval.
int ftp_get_link(ftplink* l, const char* rmtname, const char* lclname, long long start, std::string& reason);
int ftp_get_block(ftplink* l, FILE* f, Chan* cdata, int isblock, std::string& reason, long long* sz);
// One block of block mode: its length, or -1 with the reason. *ismore is 0
// after the last block.
int ftp_read_block(Chan* c, char* bf, int maxlen, int* ismore, std::string& reason);
// Writes one block-mode block (header and data); `last` marks the end of the
// file. 1, or 0 when the write failed.
int ftp_write_block(Chan* c, const char* bf, int len, int last);

int ftp_do_abort(ftplink* l);
int ftp_isalive(ftplink* l, std::string& reason);
int ftp_isopen(ftplink* l);
int ftp_getpwd(ftplink* l, std::string& out, std::string& reason);

// One LIST line: Unix or DOS form. 1 with the fields, 0 for a line that is no entry.
int ftp_decode(const char* bf, std::string& fname, std::string& xdate, long long* sz, int* isdir, int* islink);
// The same with the name uncut.
int ftp_decode_full(const char* bf, std::string& fname, std::string& xdate, long long* sz, int* isdir, int* islink);

// Small tools.
void ftp_lib_path_split(const char* in, std::string& path, std::string& fname);
std::string ftp_cvt_crlf_lf(std::string_view in);
std::string ftp_cvt_lf_crlf(std::string_view in);

// The certificate check of a TLS channel against the system's trust store,
// `ca_file` (when it exists) and `host`. 1, or 0 with the reason naming the
// failure and the certificate's SHA-256 fingerprint.
int ftp_check_certificate(Chan* c, const std::string& host, const std::string& ca_file, std::string& reason);

}  // namespace korv
