// File retrieval and storage: RETR, STOR, APPE, STOU and the commands that
// shape a transfer (REST, TYPE, MODE), with the transfer loops (speed limits,
// daily limits, quota, the abort poll, ASCII conversion, block mode), the
// watcher programs and the transfer-log line.
#pragma once

#include <string>

namespace korv {

struct LINK;
struct chan;

inline constexpr int kXferBufSize = 256 * 1024;   // file reads and socket reads without a limit
inline constexpr long long kSendfileChunk = 8LL << 20;  // one sendfile call at most
inline constexpr int kXferWaitMs = 1000;          // a socket wait between abort polls
inline constexpr int kXferMaxSeconds = 86400;     // a download stops quietly after a day
inline constexpr int kStorIdleSeconds = 600;      // an upload ends after this long without data
inline constexpr int kBlockHeaderWaitMs = 60000;  // block mode: a header's wait...
inline constexpr int kBlockDataWaitMs = 600000;   // ...and its data's
inline constexpr int kVirtMax = 999;              // bytes of a RETR name
inline constexpr int kStouMax = 999999;           // unique-name suffixes tried by STOU
inline constexpr int kStouWarn = 900000;          // each try above this is logged
inline constexpr int kWatcherPolls = 30;          // seconds a watcher program is waited for

int cmd_retr(LINK* l, char** p, int np, const char* orig);
int cmd_stor(LINK* l, char** p, int np, const char* orig);
int cmd_appe(LINK* l, char** p, int np, const char* orig);
int cmd_stou(LINK* l, char** p, int np, const char* orig);
int cmd_rest(LINK* l, char** p, int np, const char* orig);
int cmd_type(LINK* l, char** p, int np, const char* orig);
int cmd_mode(LINK* l, char** p, int np, const char* orig);

// The upload. `isunique` (STOU) leaves the final reply to the caller. 1 once
// the loop ran, 0 after an early failure (already answered).
int cmd_stor_do(LINK* l, const char* fname, int isunique);
// Bytes a second of the session's upload limit (limit_speed_up), 0 for none.
int cmd_speed_up(LINK* l);

// Writes all `len` bytes of `s` to `c`, waiting on the socket and polling the
// control channel for an abort at each second it stays full. `len`, or less
// when the channel failed or the transfer must stop.
int simple_tcp_blocking_write(LINK* l, chan* c, const char* s, int len);
// One read of up to `len` bytes, waiting at most `twait` seconds (0: no
// limit) and polling for an abort each second. The count; 0 at the peer's
// close, on timeout or abort (done_abort tells an ABOR); -1 on error.
int simple_tcp_read_timed_blocking(LINK* l, chan* c, char* s, int len, int twait);
int simple_tcp_read_blocking(LINK* l, chan* c, char* s, int len);

// Runs the watcher program `wpname` for the file `realname` of *x_filesize
// bytes, `transfer` "uploaded" or "downloaded", and waits for it up to
// kWatcherPolls seconds.
void notify_watcher(const char* wpname, const char* realname, const char* mode, long long* x_filesize, LINK* l,
                    const char* transfer);

// The transfer-log line of one transfer (without the stamp that xlog adds).
std::string xfer_line(LINK* l, long long seconds, long long bytes, const std::string& realname, const char* direction,
                      bool complete);

}  // namespace korv
