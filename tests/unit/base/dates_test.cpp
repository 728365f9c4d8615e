#include "base/dates.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>

namespace korv {
namespace {

constexpr time_t kWinter = 1700000000;  // Tue 14 Nov 2023 22:13:20 GMT
constexpr time_t kSummer = 1690000000;  // Sat 22 Jul 2023 04:26:40 GMT
constexpr const char* kEastern = "EST5EDT,M3.2.0,M11.1.0";

// Each test runs in a fixed zone and leaves the process's zone as it was.
class Dates : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        had_tz_ = tz != nullptr;
        if (tz) old_tz_ = tz;
        zone("UTC");
    }
    void TearDown() override {
        if (had_tz_)
            setenv("TZ", old_tz_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
        lib_mail_timezone("");
    }
    static void zone(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }

private:
    bool had_tz_ = false;
    std::string old_tz_;
};

TEST_F(Dates, MachineTimeIsGmtInEveryZone) {
    EXPECT_STREQ(lib_ftp_time(0), "19700101000000");
    EXPECT_STREQ(lib_ftp_time(kWinter), "20231114221320");
    zone(kEastern);
    EXPECT_STREQ(lib_ftp_time(kSummer), "20230722042640");
}

// Each thread has its own result buffer, so one thread's call cannot change
// the text another thread holds.
TEST_F(Dates, FtpTimeBufferIsPerThread) {
    const char* mine = lib_ftp_time(0);
    std::string theirs_text;
    const char* theirs = nullptr;
    std::thread t([&] {
        theirs = lib_ftp_time(kWinter);
        theirs_text = theirs;
    });
    t.join();
    EXPECT_NE(mine, theirs);
    EXPECT_STREQ(mine, "19700101000000");
    EXPECT_EQ(theirs_text, "20231114221320");
}

TEST_F(Dates, MailTimeZoneText) {
    struct Case { const char* tz; time_t t; const char* want; } cases[] = {
        {"UTC", kWinter, "Tue, 14 Nov 2023 22:13:20 +000"},
        {kEastern, kWinter, "Tue, 14 Nov 2023 17:13:20 -500"},
        {kEastern, kSummer, "Sat, 22 Jul 2023 00:26:40 -400"},
        {"JST-9", kWinter, "Wed, 15 Nov 2023 07:13:20 +900"},
        {"XST-11", kWinter, "Wed, 15 Nov 2023 09:13:20 +1100"},
    };
    char tmp[200];
    for (const auto& c : cases) {
        zone(c.tz);
        EXPECT_STREQ(lib_mail_time(tmp, c.t), c.want) << c.tz;
    }
    lib_mail_timezone("GMT");
    EXPECT_EQ(lib_mail_time(kWinter), "Wed, 15 Nov 2023 09:13:20 GMT");
    lib_mail_timezone(std::string(300, 'Z').c_str());
    EXPECT_EQ(lib_mail_time(kWinter).size(), std::string("Wed, 15 Nov 2023 09:13:20 ").size() + 100);
}

// The web date takes its day from GMT but its hours from local time, under a
// GMT label.
TEST_F(Dates, WebDateMixesGmtDayAndLocalHours) {
    EXPECT_EQ(lib_web_date2(kWinter), "Tue, 14 Nov 2023 22:13:20 GMT");
    EXPECT_EQ(web_date_get(lib_web_date2(kWinter).c_str()), kWinter);
    zone(kEastern);
    EXPECT_EQ(lib_web_date2(kSummer), "Sat, 22 Jul 2023 00:26:40 GMT");
    // The parser reads the fields as local time.
    EXPECT_EQ(web_date_get("Sat, 22 Jul 2023 00:26:40 GMT"), kSummer);
    // Two hours earlier the local day is still the 21st, but the text names
    // the GMT day, so reading it back lands a day late.
    time_t late = kSummer - 2 * 3600;
    EXPECT_EQ(lib_web_date2(late), "Sat, 22 Jul 2023 22:26:40 GMT");
    EXPECT_EQ(web_date_get(lib_web_date2(late).c_str()), late + 24 * 3600);
    EXPECT_EQ(web_date_get("Sat, 22 Jul"), 0);
}

TEST_F(Dates, DayMonthYearParser) {
    struct Case {
        const char* text;
        int year, mon, mday;  // wanted, in GMT, at midnight
    } cases[] = {
        {"5/Mar/2024", 2024, 2, 5},
        {"05/03/2024", 2024, 2, 5},
        {"31/dec/1999", 1999, 11, 31},
        {"1/jan/99", 1999, 0, 1},
        {"1/Foo/2000", 2000, 0, 1},  // an unknown month reads as January
        {"1/Ma/2000", 2000, 0, 1},   // and so does a month name cut short
        {"1/12/2000", 2000, 11, 1},
    };
    for (const auto& c : cases) {
        time_t t = lib_date_get(c.text);
        struct tm tm;
        ASSERT_NE(gmtime_r(&t, &tm), nullptr);
        EXPECT_EQ(tm.tm_year + 1900, c.year) << c.text;
        EXPECT_EQ(tm.tm_mon, c.mon) << c.text;
        EXPECT_EQ(tm.tm_mday, c.mday) << c.text;
        EXPECT_EQ(tm.tm_hour + tm.tm_min + tm.tm_sec, 0) << c.text;
    }
    EXPECT_EQ(lib_date_get("5-3-2024"), 0);
    EXPECT_EQ(lib_date_get("5/3"), 0);
    zone(kEastern);
    EXPECT_EQ(lib_date_get("14/Nov/2023"), lib_date_get("13/Nov/2023") + 24 * 3600);
    EXPECT_EQ(lib_date_get("14/Nov/2023") % (24 * 3600), 5 * 3600);  // local midnight
}

TEST_F(Dates, DurationsAndClockTexts) {
    struct Case { time_t t; const char* want; } cases[] = {
        {0, "00:00:00"},
        {3661, "01:01:01"},
        {-1, "(now)   "},
        {100000LL * 3600, "100000:00:00"},
        {100001LL * 3600, "--:--:--"},
    };
    char tmp[20];
    for (const auto& c : cases) EXPECT_STREQ(hms(tmp, c.t), c.want);

    EXPECT_STREQ(lib_time(tmp, kWinter), "22:13");
    zone(kEastern);
    EXPECT_STREQ(lib_time(tmp, kWinter), "17:13");

    std::regex logtime("^[ 0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]$");
    EXPECT_TRUE(std::regex_match(lib_logtime(), logtime)) << lib_logtime();
    std::string stamp = lib_emsg_time();
    EXPECT_EQ(stamp.size(), 14u);
    EXPECT_EQ(stamp.substr(11), ".00");
    std::regex strdate("^[0-9]{1,2} [A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} -0[45]00$");
    char bf[100];
    EXPECT_TRUE(std::regex_match(lib_strdate(bf), strdate)) << bf;
    zone("UTC");
    EXPECT_TRUE(std::regex_match(lib_strdate(bf), std::regex(".* 0000$"))) << bf;
    std::regex from("^[A-Z][a-z]{2} [A-Z][a-z]{2} [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} 20[0-9]{2}$");
    EXPECT_TRUE(std::regex_match(lib_from_time(bf), from)) << bf;
}

TEST_F(Dates, ZoneShiftsAndMillisecondClock) {
    zone(kEastern);
    EXPECT_EQ(lib_timezone(), 5 * 3600);
    EXPECT_EQ(lib_gmt_to_local(kWinter), kWinter - 5 * 3600);
    EXPECT_EQ(lib_local_to_gmt(lib_gmt_to_local(kSummer)), kSummer);

    int a = lib_msec_now();
    EXPECT_GE(a, 24 * 3600 * 1000);
    EXPECT_GE(lib_msec_now(), a);
}

}  // namespace
}  // namespace korv
