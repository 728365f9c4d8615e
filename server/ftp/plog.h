// The per-domain session logs: cmds.log (commands and replies), login.log
// (logins) and xfer.log (transfers, read by the emailed reports), their size
// rolls and the daily roll of the transfer log. Paths come from link_log_file.
#pragma once

#include <ctime>
#include <string>

namespace korv {

struct LINK;

inline constexpr int kPlogLineMax = 999;             // a log text is cut here
inline constexpr long kPlogDefaultRoll = 200000;     // cmds.log without log_cmd_size
inline constexpr long kLoginLogRoll = 200000;        // login.log
inline constexpr int kLogMaxAgeDefault = 30;         // days of dated xfer logs for log_max_age 0
inline constexpr int kPlogLockSeconds = 1;           // a line waits this long for the lock, then is dropped

// One line to each log; the session (a LINK, or null for the first domain)
// chooses the domain directory. A line that cannot get the lock or whose file
// cannot be opened is lost; the session goes on.
void plog(LINK* l, const char* format, ...) __attribute__((format(printf, 2, 3)));
void login_log(LINK* l, const char* format, ...) __attribute__((format(printf, 2, 3)));
void xlog(LINK* l, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Close a log's stream (flushing it) under the lock; the next line opens it
// again. 1, or 0 if the lock could not be had.
int plog_flush();
int plogin_flush();
int xlog_flush();
// All three: what the idle tick calls. 1 if every one was flushed.
int plog_flush_all();

// The transfer log flushes after each line while this is true.
void set_fx_log_flush(int truth);

// The daily roll of every domain's transfer log (and of the main log when
// log_dayly_roll is "true"). 1, or 0 without the lock.
int xlog_rotate_all();
// Renames the domain's xfer.log to yesterday's dated name and removes the
// dated logs `max_age` and `max_age` + 1 days old (0 means 30 days).
int xlog_rotate_one(const char* dom, int max_age);
int xlog_rotate_one_at(const char* dom, int max_age, time_t now);

// Appends raw bytes to "data.log" in the working directory (a debugging aid).
void data_log(const char* s, int len);

}  // namespace korv
