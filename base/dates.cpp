// Date and time texts, their parsers and the millisecond clock. Every
// conversion goes through the reentrant libc calls.
#include "base/dates.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/fmt.h"
#include "base/str.h"

namespace korv {

const char* const sdays[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const xdays[7] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                              "Thursday", "Friday", "Saturday"};
const char* const months[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

namespace {

constexpr int kMailZoneMax = 100;

std::mutex g_mail_zone_lock;
std::string g_mail_zone;  // fixed zone text of lib_mail_time, "" for none

// Hours east of GMT of the local standard time, plus 1 in daylight time.
int zone_hours(const struct tm& tm) {
    int dst = tm.tm_isdst > 0 ? 1 : 0;
    return static_cast<int>((tm.tm_gmtoff - dst * 3600) / 3600) + dst;
}

const char* day_name(const struct tm& tm) { return sdays[(tm.tm_wday % 7 + 7) % 7]; }
const char* month_name(const struct tm& tm) { return months[(tm.tm_mon % 12 + 12) % 12]; }

bool local_now(struct tm* tm) {
    time_t now = time(nullptr);
    return safe_localtime(&now, tm) != nullptr;
}

}  // namespace

struct tm* safe_localtime(const time_t* t, struct tm* out) { return localtime_r(t, out); }
struct tm* safe_gmtime(const time_t* t, struct tm* out) { return gmtime_r(t, out); }
char* safe_ctime(const time_t* t, char* buf) { return ctime_r(t, buf); }

char* lib_ftp_time(time_t t) {
    thread_local char buf[64];
    struct tm tm;
    buf[0] = 0;
    if (safe_gmtime(&t, &tm))
        std::snprintf(buf, sizeof buf, "%d%02d%02d%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                      tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

char* lib_time(char* bf, time_t t) {
    struct tm tm;
    if (!safe_localtime(&t, &tm)) std::memset(&tm, 0, sizeof tm);
    std::snprintf(bf, 6, "%02d:%02d", tm.tm_hour, tm.tm_min);
    return bf;
}

char* lib_hourmin(char* tmp) { return lib_time(tmp, time(nullptr)); }

int lib_mday() {
    struct tm tm;
    return local_now(&tm) ? tm.tm_mday : 0;
}

void lib_mail_timezone(const char* s) {
    std::lock_guard<std::mutex> hold(g_mail_zone_lock);
    g_mail_zone.assign(s ? s : "");
    if (g_mail_zone.size() > static_cast<size_t>(kMailZoneMax)) g_mail_zone.resize(kMailZoneMax);
}

char* lib_mail_time(char* tmp, time_t t) {
    struct tm tm;
    if (!safe_localtime(&t, &tm)) {
        std::strcpy(tmp, "Bad Time    ");
        return tmp;
    }
    char zone[kMailZoneMax + 1];
    {
        std::lock_guard<std::mutex> hold(g_mail_zone_lock);
        ncpy(zone, g_mail_zone.c_str(), kMailZoneMax);
    }
    if (!zone[0]) std::snprintf(zone, sizeof zone, "%+02d00", zone_hours(tm));
    std::string text = strfmt("%s, %02d %s %d %02d:%02d:%02d %s", day_name(tm), tm.tm_mday,
                              month_name(tm), tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec, zone);
    return ncpy(tmp, text.c_str(), 199);
}

std::string lib_mail_time(time_t t) {
    char tmp[200];
    return lib_mail_time(tmp, t);
}

char* lib_from_time(char* tmp) {
    struct tm tm;
    if (!local_now(&tm)) std::memset(&tm, 0, sizeof tm);
    std::snprintf(tmp, 100, "%s %s %02d %02d:%02d:%02d %d", day_name(tm), month_name(tm), tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_year + 1900);
    return tmp;
}

char* lib_strdate(char* bf) {
    struct tm tm;
    if (!local_now(&tm)) {
        std::strcpy(bf, "LOCALTIMEnull");
        return bf;
    }
    char zone[32];
    int h = zone_hours(tm);
    if (h >= 0)
        std::snprintf(zone, sizeof zone, "%02d00", h);
    else
        std::snprintf(zone, sizeof zone, "-%02d00", -h);
    std::snprintf(bf, 100, "%d %s %02d %02d:%02d:%02d %s", tm.tm_mday, month_name(tm),
                  tm.tm_year % 100, tm.tm_hour, tm.tm_min, tm.tm_sec, zone);
    return bf;
}

char* lib_web_date2(time_t t, char* bf) {
    struct tm tm;
    char ct[64];
    if (!safe_gmtime(&t, &tm)) std::memset(&tm, 0, sizeof tm);
    if (!safe_ctime(&t, ct)) std::strcpy(ct, "badtimebadtimebadtime");
    char hours[9];
    ncpy(hours, ct + 11, 8);
    std::string text = strfmt("%.3s, %02d %.500s %d %.500s GMT", day_name(tm), tm.tm_mday,
                              month_name(tm), tm.tm_year + 1900, hours);
    return ncpy(bf, text.c_str(), 99);
}

char* lib_web_date(char* bf) { return lib_web_date2(time(nullptr), bf); }

std::string lib_web_date2(time_t t) {
    char bf[100];
    return lib_web_date2(t, bf);
}

char* lib_logtime(char* tstr) {
    char ct[64];
    time_t now = time(nullptr);
    if (!safe_ctime(&now, ct)) std::strcpy(ct, "badtimebadtimebadtime");
    ncpy(tstr, ct + 8, 11);
    return tstr;
}

char* lib_emsg_time(char* tstr) {
    lib_logtime(tstr);
    // The hundredths come from a millisecond count that is always 0.
    int msec = 0;
    std::snprintf(tstr + std::strlen(tstr), 4, ".%.02d", msec / 10);
    return tstr;
}

std::string lib_logtime() {
    char t[16];
    return lib_logtime(t);
}

std::string lib_emsg_time() {
    char t[16];
    return lib_emsg_time(t);
}

int lib_month_find(const char* s) {
    if (*s >= '0' && *s <= '9') return std::atoi(s) - 1;
    for (int i = 0; i < 12; i++)
        if (strncmpnc(s, months[i], 3) == 0) return i;
    return 0;
}

time_t lib_date_get(const char* xdte) {
    const char* m = std::strchr(xdte, '/');
    if (!m) return 0;
    const char* y = std::strchr(m + 1, '/');
    if (!y) return 0;
    struct tm tm;
    std::memset(&tm, 0, sizeof tm);
    tm.tm_mday = std::atoi(xdte);
    tm.tm_mon = lib_month_find(m + 1);
    int year = std::atoi(y + 1);
    if (year > 200) year -= 1900;
    tm.tm_year = year;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

time_t web_date_get(const char* dte) {
    if (std::strlen(dte) < 25) return 0;
    struct tm tm;
    std::memset(&tm, 0, sizeof tm);
    tm.tm_mday = std::atoi(dte + 5);
    tm.tm_mon = lib_month_find(dte + 8);
    tm.tm_year = std::atoi(dte + 12) - 1900;
    tm.tm_hour = std::atoi(dte + 17);
    tm.tm_min = std::atoi(dte + 20);
    tm.tm_sec = std::atoi(dte + 23);
    tm.tm_isdst = -1;
    return mktime(&tm);
}

char* hms(char* tmp, time_t t) {
    if (t < 0) {
        std::strcpy(tmp, "(now)   ");
        return tmp;
    }
    long long h = static_cast<long long>(t) / 3600;
    if (h > 100000) {
        std::strcpy(tmp, "--:--:--");
        return tmp;
    }
    std::snprintf(tmp, 20, "%02lld:%02d:%02d", h, static_cast<int>(t / 60 % 60),
                  static_cast<int>(t % 60));
    return tmp;
}

int lib_msec_now() {
    using Clock = std::chrono::steady_clock;
    static const Clock::time_point base = Clock::now() - std::chrono::hours(24);
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - base).count());
}

long lib_timezone() {
    tzset();
    return timezone;
}

time_t lib_gmt_to_local(time_t t) { return t - lib_timezone(); }

time_t lib_local_to_gmt(time_t t) { return t + lib_timezone(); }

}  // namespace korv
