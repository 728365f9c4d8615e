// Date and time texts of the logs, listings, mail and web pages, their
// parsers, and the process's millisecond clock. Thread-safe throughout.
#pragma once

#include <ctime>
#include <string>

namespace korv {

extern const char* const sdays[7];    // "Sun" .. "Sat"
extern const char* const xdays[7];    // "Sunday" .. "Saturday"
extern const char* const months[12];  // "Jan" .. "Dec"

// Reentrant forms; null when the time cannot be converted. safe_ctime's
// buffer needs 26 bytes.
struct tm* safe_localtime(const time_t* t, struct tm* out);
struct tm* safe_gmtime(const time_t* t, struct tm* out);
char* safe_ctime(const time_t* t, char* buf);

// "%d%02d%02d%02d%02d%02d" of `t` in GMT. The text lives in a buffer of the
// calling thread, valid until that thread's next call.
char* lib_ftp_time(time_t t);
// "%02d:%02d" local hours and minutes, of now and of `t`. 6 bytes.
char* lib_hourmin(char* tmp);
char* lib_time(char* bf, time_t t);
// Local day of the month.
int lib_mday();
// "%s, %02d %s %d %02d:%02d:%02d %s": day, date, month, year, time, zone.
// The zone is "%+02d00" of the local standard offset in hours, plus 1 in
// daylight time, unless lib_mail_timezone has set a fixed text (at most 100
// bytes). "Bad Time    " on failure. 200 bytes.
char* lib_mail_time(char* tmp, time_t t);
void lib_mail_timezone(const char* s);
// "%s %s %02d %02d:%02d:%02d %d" of now: day, month, date, time, year.
char* lib_from_time(char* tmp);
// "%d %s %02d %02d:%02d:%02d %s" of now: date, month, two-digit year, time,
// zone "%02d00" or "-%02d00". "LOCALTIMEnull" on failure. 100 bytes.
char* lib_strdate(char* bf);
// "%.3s, %02d %.500s %d %.500s GMT": day, date, month and year in GMT; the
// hours come from ctime (local time) and the label stays GMT. 100 bytes.
char* lib_web_date(char* bf);
char* lib_web_date2(time_t t, char* bf);
// "dd hh:mm:ss", the 11 bytes at index 8 of ctime (day padded by a blank).
// 12 bytes.
char* lib_logtime(char* tstr);
// lib_logtime followed by ".00". 15 bytes.
char* lib_emsg_time(char* tstr);
// Parses "day/month/year" (month a name or number); a year above 200 has 1900
// taken off. Midnight local time; 0 when a '/' is missing.
time_t lib_date_get(const char* xdte);
// Reads a web date by its fixed columns (day 5, month 8, year 12, hour 17,
// minute 20, second 23) as local time; 0 for a text too short to hold them.
time_t web_date_get(const char* dte);
// A leading digit: atoi - 1. Otherwise the index of the month whose first
// three letters match in any case; 0 if none.
int lib_month_find(const char* s);
// "%02d:%02d:%02d" of a duration; above 100000 hours "--:--:--", negative
// "(now)   ". 20 bytes.
char* hms(char* tmp, time_t t);
// Milliseconds since one day before the first call.
int lib_msec_now();
// Seconds west of GMT of the local standard time (the C `timezone`).
long lib_timezone();
// Shift by the local standard offset: local = gmt - lib_timezone().
time_t lib_gmt_to_local(time_t t);
time_t lib_local_to_gmt(time_t t);

// std::string forms for callers that hold no buffer.
std::string lib_mail_time(time_t t);
std::string lib_web_date2(time_t t);
std::string lib_logtime();
std::string lib_emsg_time();

}  // namespace korv
