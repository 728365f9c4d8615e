// Report definitions and their runs: ereport.dat written and read back
// (private, in table order, keys in any order), refused definitions, when a
// report is due (once, in its second, never twice), and a whole report
// mailed to a real SMTP server on loopback from a transfer log.
#include "server/report/ereport.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "server/report/smtp.h"
#include "server/settings/ini.h"
#include "tests/support/texts.h"

namespace korv {
namespace {

using test::local_time;

using Form = std::map<std::string, std::string>;

Form daily(const std::string& email) {
    return {{"email", email}, {"frequency", "Day"}, {"domain", "ftp.example"}, {"filter", "*"},
            {"when_hr", "6"},  {"when_min", "0"},     {"ul", "true"},           {"dl", "true"},
            {"top10", "true"}, {"full_list", "true"}, {"problems", "true"},     {"size", "true"}};
}

int add(const Form& f, std::string& reason) {
    return add_email_report_settings(
        [&](const char* k) {
            auto it = f.find(k);
            return it == f.end() ? std::string() : it->second;
        },
        reason);
}

// The server's home in a directory without capitals (log paths are lower-cased).
class EreportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mutex_init();
        static int n = 0;
        home_ = strfmt("/tmp/korv_ereport_%d_%d", static_cast<int>(getpid()), n++);
        ASSERT_EQ(mkdir(home_.c_str(), 0700), 0);
        emsg_open((home_ + "/korvane.log").c_str());
        settings("");
        ereport_set_dir(home_);
        ereport_free_all();
    }
    void TearDown() override {
        ereport_free_all();
        ini_free_all();
        emsg_open("");
        EXPECT_EQ(system(("rm -rf '" + home_ + "'").c_str()), 0);
    }
    void settings(const std::string& smtp) {
        ini_free_all();
        const std::string ini = home_ + "/k.ini";
        std::ofstream(ini) << "global_settings\n home \"" << home_ << "\"\n log_home \"" << home_ << "/logs\"\n"
                           << (smtp.empty() ? "" : " global_smtp \"" + smtp + "\"\n")
                           << "vdomain address=\"\" name=\"ftp.example\"\n email \"admin@ftp.example\"\n";
        ASSERT_EQ(ini_read("korvane", ini.c_str()), 1);
    }
    std::string dat() { return test::slurp(home_ + "/ereport.dat"); }
    std::string log() {
        emsg_flush();
        return test::slurp(home_ + "/korvane.log");
    }
    std::string home_;
};

TEST_F(EreportTest, DefinitionsAreStoredPrivatelyAndReadBack) {
    std::string reason;
    ASSERT_EQ(add(daily("ops@x.example, boss@x.example"), reason), 1) << reason;
    Form weekly = daily("w@x.example");
    weekly["frequency"] = "Week/Friday";
    weekly["when_hr"] = "23";
    weekly["when_min"] = "59";
    weekly["filter"] = "*.zip,*.tar";
    weekly.erase("full_list");
    ASSERT_EQ(add(weekly, reason), 1) << reason;
    struct stat st{};
    ASSERT_EQ(stat((home_ + "/ereport.dat").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(access((home_ + "/ereport.newdat").c_str(), F_OK), -1);
    EXPECT_EQ(dat(),
              "email=\"ops@x.example, boss@x.example\" frequency=\"Day\" domain=\"ftp.example\" filter=\"*\" "
              "when_hr=\"6\" when_min=\"0\" ul=\"true\" dl=\"true\" top10=\"true\" full_list=\"true\" "
              "problems=\"true\" size=\"true\" single=\"false\" last_report_at=\"0\" \n"
              "email=\"w@x.example\" frequency=\"Week/Friday\" domain=\"ftp.example\" filter=\"*.zip,*.tar\" "
              "when_hr=\"23\" when_min=\"59\" ul=\"true\" dl=\"true\" top10=\"true\" full_list=\"false\" "
              "problems=\"true\" size=\"true\" single=\"false\" last_report_at=\"0\" \n");

    // Keys in another order, one missing, then a line of too few pairs that ends the reading.
    std::ofstream(home_ + "/ereport.dat")
        << "when_min=\"30\" email=\"a@b.example\" frequency=\"Week/Monday\" dl=\"true\" when_hr=\"7\" "
           "last_report_at=\"1764000000\" \n"
        << "email=\"x@y\" frequency=\"Day\" \n"
        << "email=\"never@read\" frequency=\"Day\" domain=\"\" filter=\"\" when_hr=\"1\" \n";
    ASSERT_EQ(load_ereport(), 1);
    std::vector<EmailReportGenerator> all = ereport_snapshot();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_STREQ(get_charptr(&all[0], "email"), "a@b.example");
    EXPECT_STREQ(get_charptr(&all[0], "domain"), "");
    EXPECT_EQ(get_int(&all[0], "when_hr"), 7);
    EXPECT_EQ(get_int(&all[0], "when_min"), 30);
    EXPECT_EQ(get_bool(&all[0], "dl"), 1);
    EXPECT_EQ(get_bool(&all[0], "ul"), 0);
    EXPECT_EQ(get_bool(&all[0], "speeds"), 0);  // no row: always off
    EXPECT_EQ(all[0].last_report_at, 1764000000);
    EXPECT_EQ(all[0].status, "Waiting to start...");

    EXPECT_EQ(remove_email_report_settings(1), 0);
    EXPECT_EQ(remove_email_report_settings(0), 1);
    EXPECT_EQ(dat(), "");
}

TEST_F(EreportTest, BadDefinitionsAreRefusedAndNothingIsWritten) {
    std::string reason;
    ASSERT_EQ(add(daily("keep@x.example"), reason), 1);
    const std::string before = dat();
    std::string many;
    for (int i = 0; i < 10000; ++i) many += strfmt("%su%d@x.example", i ? "," : "", i);
    struct Case {
        const char* name;
        const char* key;
        std::string value;
        const char* reason_has;
    };
    const Case cases[] = {
        {"quote in the filter", "filter", "*\" injected=\"1", "double quote"},
        {"line end in the address", "email", "a@b.example\nemail=\"c@d\"", "line end"},
        {"CR in the domain", "domain", "x\r", "line end"},
        {"NUL in the filter", "filter", std::string("a\0b", 3), "NUL"},
        {"10 000 addresses", "email", many, "too long"},
        {"21 addresses", "email", many.substr(0, many.find(",u21@")), "at most 20"},
        {"not an address", "email", "nobody", "Not a mail address"},
        {"blank in an address", "email", "a b@x.example", "Not a mail address"},
        {"no address", "email", "", "needs an address"},
        {"hour 24", "when_hr", "24", "hour"},
        {"minute -1", "when_min", "-1", "minute"},
        {"monthly", "frequency", "Month", "Day or Week"},
    };
    for (const Case& c : cases) {
        Form f = daily("ok@x.example");
        f[c.key] = c.value;
        reason.clear();
        EXPECT_EQ(add(f, reason), 0) << c.name;
        EXPECT_NE(reason.find(c.reason_has), std::string::npos) << c.name << ": " << reason;
    }
    EXPECT_EQ(ereport_count(), 1);
    EXPECT_EQ(dat(), before);
}

TEST_F(EreportTest, NextTimesAndTheOneSecondAReportIsDue) {
    const char* old = getenv("TZ");
    std::string keep = old != nullptr ? old : "";
    setenv("TZ", "UTC0", 1);
    tzset();
    const time_t fri_2359 = local_time(2025, 11, 28, 23, 59, 0);  // a Friday
    struct Case {
        const char* name;
        time_t now, last;
        const char* freq;
        int hr, mn;
        time_t want;
    };
    const Case cases[] = {
        {"weekly, in its very second", fri_2359, 0, "Week/Friday", 23, 59, fri_2359},
        {"weekly, just ran", fri_2359, fri_2359, "Week/Friday", 23, 59, fri_2359 + 604800},
        {"weekly, one second late", fri_2359 + 1, 0, "Week/Friday", 23, 59, fri_2359 + 604800},
        {"weekly, on another day", local_time(2025, 11, 26, 8, 0, 0), 0, "Week/Friday", 23, 59, fri_2359},
        {"daily, a second early", local_time(2025, 11, 25, 5, 59, 59), 0, "Day", 6, 0,
         local_time(2025, 11, 25, 6, 0, 0)},
        {"daily, a second late", local_time(2025, 11, 25, 6, 0, 1), 0, "Day", 6, 0,
         local_time(2025, 11, 26, 6, 0, 0)},
        {"any other word is daily", local_time(2025, 11, 25, 5, 0, 0), 0, "whenever", 6, 0,
         local_time(2025, 11, 25, 6, 0, 0)},
    };
    for (const Case& c : cases) {
        tm t{};
        EXPECT_EQ(get_time_of_next_report(&t, c.now, c.last, c.freq, c.hr, c.mn), c.want) << c.name;
    }
    EXPECT_EQ(in_seconds("DAY"), 86400);
    EXPECT_EQ(in_seconds("week/Sunday"), 604800);

    // Due once in its second; not again in that second, not after a restart
    // (the time of the run was saved before it ran).
    std::string reason;
    Form f = daily("ops@x.example");
    f["frequency"] = "Week/Friday";
    f["when_hr"] = "23";
    f["when_min"] = "59";
    ASSERT_EQ(add(f, reason), 1);
    EXPECT_EQ(check_for_reports_to_run(fri_2359 - 1), 0);
    EXPECT_EQ(check_for_reports_to_run(fri_2359), 1);
    EXPECT_EQ(check_for_reports_to_run(fri_2359), 0);
    EXPECT_NE(dat().find("last_report_at=\"" + std::to_string(fri_2359) + "\""), std::string::npos);
    ASSERT_EQ(load_ereport(), 1);
    EXPECT_EQ(check_for_reports_to_run(fri_2359), 0);
    // No relay is set: the failure is the status, and the log says why.
    std::vector<EmailReportGenerator> all = ereport_snapshot();
    EXPECT_EQ(all[0].status, "Waiting to start...");  // reloaded
    EXPECT_NE(log().find("e-reporting: report to (ops@x.example) not sent: Emailing: Failure: SMTP email server () "
                         "did not respond."),
              std::string::npos);
    if (old != nullptr)
        setenv("TZ", keep.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST(EreportMail, SenderDomains) {
    const struct {
        const char* domain;
        const char* want;
    } cases[] = {{"ftp.example", "ftp.example"}, {"local", "local.ftp"}, {"", "default.ftp"}};
    for (const auto& c : cases) {
        EmailReportGenerator r;
        ereport_set_field(&r, "domain", c.domain);
        EXPECT_EQ(ereport_sender_domain(&r), c.want) << c.domain;
    }
}

// The mail sink of the SMTP tests, as a process of its own.
class Sink {
  public:
    explicit Sink(const std::string& dir) {
        const char* py = access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
        pipe_ = popen(strfmt("exec %s %s/tests/report/smtp_sink.py '%s'", py, KORV_SOURCE_DIR, dir.c_str()).c_str(),
                      "r");
        char line[100] = {};
        if (pipe_ != nullptr && fgets(line, sizeof line, pipe_) != nullptr) sscanf(line, "%d %d", &port_, &pid_);
    }
    ~Sink() {
        if (pid_ > 0) kill(pid_, SIGTERM);
        if (pipe_ != nullptr) pclose(pipe_);
    }
    int port_ = 0;

  private:
    FILE* pipe_ = nullptr;
    int pid_ = 0;
};

TEST_F(EreportTest, AReportIsMailedFromTheTransferLog) {
    if (system("/usr/bin/python3 -c 'import aiosmtpd' 2>/dev/null") != 0) {
        GTEST_SKIP() << "python3-aiosmtpd is not installed (scripts/bootstrap installs it)";
    }
    const std::string out = home_ + "/mail";
    ASSERT_EQ(mkdir(out.c_str(), 0700), 0);
    Sink sink(out);
    ASSERT_GT(sink.port_, 0);
    settings(strfmt("127.0.0.1:%d", sink.port_));
    // Transfers of the last hours in the live log; one line too old to count.
    ASSERT_EQ(system(("mkdir -p '" + home_ + "/logs/ftp.example'").c_str()), 0);
    const time_t now = time(nullptr);
    {
        std::ofstream o(home_ + "/logs/ftp.example/xfer.log");
        auto line = [&](time_t t, const char* name, char dir, char status, long long size) {
            char ct[32];
            ctime_r(&t, ct);
            o << strfmt("%.24s 1 10.0.0.22 %lld \"%s\" b _ %c r bob \"bob\" 0 * %c\n", ct, size, name, dir, status);
        };
        line(now - 3600, "/pub/a.zip", 'o', 'c', 2048);
        line(now - 3000, "/pub/a.zip", 'o', 'c', 2048);
        line(now - 2000, "/pub/a.zip", 'o', 'i', 1024);
        line(now - 1000, "/in/.hidden", 'i', 'c', 10240);
        line(now - 90000, "/pub/old.zip", 'o', 'c', 1);
    }
    std::string reason;
    ASSERT_EQ(add(daily("ops@x.example"), reason), 1) << reason;
    ASSERT_EQ(ereport_run_now(0, reason), 1) << reason;
    EXPECT_EQ(reason, "Success.");
    EXPECT_EQ(ereport_snapshot()[0].status.rfind("At ", 0), 0u);

    const std::string got = test::slurp(out + "/1.eml");
    EXPECT_EQ(got.rfind("MAIL admin@ftp.example\nRCPT ops@x.example\nTLS no\nHELO korvane\n\n", 0), 0u) << got;
    EXPECT_NE(got.find("From: \"Korvane Domain ftp.example Report\" <korvane@ftp.example>\r\n"
                       "To: <ops@x.example>\r\n"
                       "Subject: Korvane Report ftp.example " +
                       report_date(now) + "\r\nDate: "),
              std::string::npos)
        << got;
    const std::string body = got.substr(got.find("\r\n\r\n") + 4);
    const std::string want =
        "This is a file transfer report generated by Korvane for ftp.example.\r\n"
        "For the period " + report_date(now - 86400) + " 6:00 to " + report_date(now) + " 6:00\r\n"
        "\r\n"
        "  Here is a list of the top ten uploads.\r\n"
        "  full/partial   transferred  (filename)\r\n"
        "     1/0                   10k /in/.hidden\r\n"
        "\r\n"
        "  Here is a list of the top ten downloads.\r\n"
        "  full/partial   transferred  (filename)\r\n"
        "     2/1                    5k /pub/a.zip\r\n"
        "\r\n"
        "  Here is a list of all files.\r\n"
        "  full/partial   transferred  (filename)\r\n"
        "     2/1                    5k /pub/a.zip\r\n"
        "     1/0                   10k /in/.hidden\r\n"
        "\r\n"
        "\r\n";  // the end of data always starts with a line end of its own
    EXPECT_EQ(body, want);
}

}  // namespace
}  // namespace korv
