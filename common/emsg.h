// The server's main log: leveled lines "%s:%s:%d: %s" (stamp, label, thread,
// text), the error log beside it, rotation by size through six generations
// and by day, copies to syslog, and the small web and ad hoc trace logs.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace korv {

constexpr long kLogRollSize = 1800000;   // the log rolls above this many counted bytes
constexpr long kErrLogRollSize = 100000; // the error log, likewise
constexpr long kWebLogMaxSize = 100000;  // the web log is removed past this
constexpr int kLogGenerations = 6;       // name.log, name2.log ... name6.log
constexpr int kLogBufferSize = 32768;

// Each call writes one line: the log adds the "\n" a text lacks (never a
// second one).
int emsg(const char* format, ...) __attribute__((format(printf, 1, 2)));  // level 0, "Err!"
int imsg(const char* format, ...) __attribute__((format(printf, 1, 2)));  // level 1, "Info"
int dmsg(const char* format, ...) __attribute__((format(printf, 1, 2)));  // level 2, "dbug"
int kmsg(const char* format, ...) __attribute__((format(printf, 1, 2)));  // the trace log, if open
int kmsg_open(const char* path);

// `text` with every control byte (and DEL) shown as "\xNN", so that text from
// a client can never start a line of its own in a log; a final "\n" or
// "\r\n" stays the line end.
std::string log_escape(std::string_view text);

int emsg_do(int lvl, const char* line);   // takes EMSG (thin path) unless disabled
int emsg_dox(int lvl, const char* line);  // the same without the lock
int emsg_level();                         // the current level, 0..2

int emsg_setlvl(const char* s);  // "error", "info", "debug": the number, or -1
void emsg_setflush(int x);
void emsg_setautoroll(int truth);
void emsg_disable_mutex(int x);

void emsg_syslog_host(const char* host);
void emsg_syslog(int lvl, const char* bf);
void syslog_cmds(const char* bf);
void syslog_auth(const char* bf);

int emsg_open(const char* logfile);  // without it (or with ""), lines go to standard output
int emsg_open_error(const char* logfile);
void emsg_close();
void emsg_flush();
std::string emsg_fname();
std::string emsg_fname_err();

// Rotated file i: 0 is fname, i gives "base<i+1>.ext". A name without a dot is fatal.
std::string emsg_fname_n(std::string_view fname, int i);
// The file of the day of t: fname within the last 82800 s, else "base_yymmdd.ext".
std::string emsg_fname_date(std::string_view fname, time_t t);
std::string emsg_fname_date_at(std::string_view fname, time_t t, time_t now);
void emsg_rotate(const char* fname);
int emsg_dayly_logging_rotate();
int emsg_dayly_logging_rotate_at(time_t now);  // the same with the present time given
int do_emsg_dayly_logging_rotate(time_t current_time, const char* log_file_name, const char* ext,
                                 std::string& archive_name);
std::string emsg_time();  // "dd hh:mm:ss.cc"

int web_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
int web_log_do(const char* s);
int web_log_close();

int bug_hunt(const char* file, const char* format, ...) __attribute__((format(printf, 2, 3)));
void bug_rotate(const char* file);

}  // namespace korv
