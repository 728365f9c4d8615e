// The SMTP sender against a real SMTP server on loopback (aiosmtpd, started
// per test): the envelope, headers and body as received, dot-stuffing,
// STARTTLS, a refused recipient, a relay that is down and one that stalls;
// and the reply reader and the Date header on their own.
#include "server/report/smtp.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <regex>

#include "common/emsg.h"
#include "common/mutex.h"
#include "tests/support/certs.h"
#include "tests/support/chanpair.h"
#include "tests/support/texts.h"

namespace korv {
namespace {

// Debian's interpreter: the one the package python3-aiosmtpd installs into.
std::string sink_python() { return access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3"; }

bool have_aiosmtpd() {
    return system((sink_python() + " -c 'import aiosmtpd' 2>/dev/null").c_str()) == 0;
}

// The mail sink process: messages land in dir as 1.eml, 2.eml, ...
class Sink {
  public:
    Sink(const std::string& dir, const std::string& args) {
        std::string cmd = "exec " + sink_python() + " " KORV_SOURCE_DIR "/tests/report/smtp_sink.py '" + dir + "' " + args;
        pipe_ = popen(cmd.c_str(), "r");
        if (pipe_ == nullptr) return;
        char line[100] = {};
        if (fgets(line, sizeof line, pipe_) != nullptr) sscanf(line, "%d %d", &port_, &pid_);
    }
    ~Sink() {
        if (pid_ > 0) kill(pid_, SIGTERM);
        if (pipe_ != nullptr) pclose(pipe_);
    }
    int port() const { return port_; }
    std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }

  private:
    FILE* pipe_ = nullptr;
    int port_ = 0;
    int pid_ = 0;
};

struct Msg {
    std::vector<std::string> body;
};

int headers(Chan* c, time_t event, void*, const char* cr) {
    return smtp_write(c, std::string("From: <from@x.example>") + cr + "To: <to@y.example>" + cr +
                             "Subject: test" + cr) &&
           do_standard_date_header(c, event, nullptr, cr);
}

int body(Chan* c, time_t, void* data, const char* cr) {
    for (const std::string& l : static_cast<Msg*>(data)->body)
        if (!smtp_body_line(c, l, cr)) return 0;
    return 1;
}

class SmtpTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mutex_init();
        emsg_open(dir_.file("korvane.log").c_str());
        smtp_set_wait_ms(kSmtpWaitMs);
    }
    void TearDown() override {
        emsg_open("");
        smtp_set_wait_ms(kSmtpWaitMs);
    }
    int send(const std::string& server, const char* to, Msg& m, std::string& reason) {
        return send_email(server.c_str(), "tester.example", "from@x.example", to, 1764072000, &m, headers, body,
                          reason);
    }
    std::string log() {
        emsg_flush();
        return test::slurp(dir_.file("korvane.log"));
    }
    test::TempDir dir_{"smtp"};
};

#define NEED_SINK()                                                                          \
    if (!have_aiosmtpd()) {                                                                  \
        GTEST_SKIP() << "python3-aiosmtpd is not installed (scripts/bootstrap installs it)"; \
    }

TEST_F(SmtpTest, DeliversEnvelopeHeadersAndBodyWithDotsStuffed) {
    NEED_SINK();
    test::TempDir out("mail");
    Sink sink(out.path(), "");
    ASSERT_GT(sink.port(), 0);
    // Lines of and starting with dots must arrive as written, and the lines
    // after a lone "." must not be lost (or run as commands).
    Msg m{{"first line", ".", "..two dots", ".x", "last line"}};
    std::string reason;
    ASSERT_EQ(send(sink.addr(), "to@y.example", m, reason), 1) << reason;
    EXPECT_EQ(reason, "Emailing: Report successfully sent to smtp server.");
    std::string got = test::slurp(out.file("1.eml"));
    EXPECT_NE(got.find("MAIL from@x.example\nRCPT to@y.example\nTLS no\nHELO tester.example\n\n"), std::string::npos)
        << got;
    EXPECT_NE(got.find("Subject: test\r\n"), std::string::npos);
    EXPECT_TRUE(std::regex_search(got, std::regex("Date: [A-Z][a-z]{2}, \\d+ [A-Z][a-z]{2} 2025 \\d\\d:\\d\\d:\\d\\d [-+]\\d{4}\r\n")))
        << got;
    EXPECT_NE(got.find("\r\n\r\nfirst line\r\n.\r\n..two dots\r\n.x\r\nlast line\r\n"), std::string::npos) << got;
}

TEST_F(SmtpTest, UsesStartTlsWhenTheRelayOffersIt) {
    NEED_SINK();
    test::TempDir out("mail");
    test::TestPki pki;
    ASSERT_EQ(mkdir(out.file("pki").c_str(), 0700), 0);
    ASSERT_TRUE(test::make_test_pki(out.file("pki"), pki));
    // This relay refuses any mail before STARTTLS, so a clear delivery fails.
    Sink sink(out.path(), "--tls '" + pki.server_cert + "' '" + pki.server_key + "'");
    ASSERT_GT(sink.port(), 0);
    Msg m{{"over tls"}};
    std::string reason;
    ASSERT_EQ(send(sink.addr(), "to@y.example", m, reason), 1) << reason;
    std::string got = test::slurp(out.file("1.eml"));
    EXPECT_NE(got.find("TLS yes\n"), std::string::npos) << got;
    EXPECT_NE(got.find("over tls\r\n"), std::string::npos) << got;
}

TEST_F(SmtpTest, FailuresEndTheAttemptWithTheirReason) {
    NEED_SINK();
    test::TempDir out("mail");
    Sink refusing(out.path(), "--refuse nobody");
    ASSERT_GT(refusing.port(), 0);
    // A port nobody listens on.
    unsigned short down_port = 0;
    { test::listen_loopback(&down_port); }
    // A relay that accepts the connection and never says a word.
    unsigned short stall_port = 0;
    ChanPtr stalled = test::listen_loopback(&stall_port);
    smtp_set_wait_ms(300);

    struct Case {
        const char* name;
        std::string server;
        const char* to;
        std::string reason_prefix;
        std::string logged;
    };
    const Case cases[] = {
        {"refused recipient", refusing.addr(), "nobody@y.example",
         "Emailing: Error during report (smtp protocol, search log for\"Emailing: \" | 550 5.1.1 mailbox unavailable)",
         "Emailing: Emailing: Error during report (smtp protocol"},
        {"relay down", "127.0.0.1:" + std::to_string(down_port), "to@y.example",
         "Emailing: Failure: SMTP email server (127.0.0.1) did not respond. - Global setting \"SMTP\"",
         "Emailing: SMTP email server (127.0.0.1) did not respond."},
        {"relay stalls", "127.0.0.1:" + std::to_string(stall_port), "to@y.example",
         "Emailing: Error during report (tcp_problem | no reply within 300 ms)",
         "Emailing: Emailing: Error during report (tcp_problem | no reply within 300 ms)"},
        {"address with a line end", refusing.addr(), "a@b\r\nRCPT TO:<c@d>", "Emailing: Failure: an address", ""},
    };
    for (const Case& c : cases) {
        Msg m{{"x"}};
        std::string reason;
        EXPECT_EQ(send(c.server, c.to, m, reason), 0) << c.name;
        EXPECT_EQ(reason.rfind(c.reason_prefix, 0), 0u) << c.name << ": " << reason;
        if (!c.logged.empty()) {
            EXPECT_NE(log().find(c.logged), std::string::npos) << c.name;
        }
    }
    EXPECT_EQ(access(out.file("1.eml").c_str(), F_OK), -1);  // nothing was delivered
}

TEST(SmtpReplies, MultiLineRepliesAreReadWholeAndInOrder) {
    mutex_init();
    ChanPtr cl, sv;
    ASSERT_TRUE(test::make_chan_pair(cl, sv));
    struct Step {
        const char* sent;  // written by the relay before the read
        int result;
    };
    // A reply split across packets, a reply followed by the next in the same
    // packet, then a refusal whose first line decides.
    const Step steps[] = {
        {"250-first\r\n250-sec", 1}, {"ond\r\n250 last\r\n354 go ahead\r\n", 1}, {"", 1},
        {"550-no\r\n550 really not\r\n", 0},
    };
    std::string reason;
    for (const Step& s : steps) {
        const int n = static_cast<int>(strlen(s.sent));
        if (n > 0) {
            ASSERT_EQ(tcp_write(sv.get(), s.sent, n), n);
        }
        if (strncmp(s.sent, "250-first", 9) == 0) continue;  // its end comes with the next write
        EXPECT_EQ(doread_get_smtp_response(cl.get(), reason), s.result) << s.sent;
    }
    EXPECT_EQ(reason, "Emailing: Error during report (smtp protocol, search log for\"Emailing: \" | 550-no 550 really not)");
    char bf[20] = {};
    ASSERT_EQ(tcp_read_timed(sv.get(), bf, sizeof bf - 1, 5000), 6);  // a refusal sends QUIT
    EXPECT_STREQ(bf, "QUIT\r\n");
}

TEST(SmtpDate, OffsetFollowsTheLocalZone) {
    const char* old = getenv("TZ");
    std::string keep = old != nullptr ? old : "";
    struct Case {
        const char* tz;
        const char* want;
    };
    const time_t event = 1764072000;  // Tue, 25 Nov 2025 12:00:00 GMT
    const Case cases[] = {
        {"UTC0", "Date: Tue, 25 Nov 2025 12:00:00 +0000\r\n"},
        {"EST5", "Date: Tue, 25 Nov 2025 07:00:00 -0500\r\n"},
        {"IST-5:30", "Date: Tue, 25 Nov 2025 17:30:00 +0530\r\n"},
        {"NZST-12NZDT,M9.5.0,M4.1.0/3", "Date: Wed, 26 Nov 2025 01:00:00 +1300\r\n"},
    };
    for (const Case& c : cases) {
        setenv("TZ", c.tz, 1);
        tzset();
        EXPECT_EQ(smtp_date_header(event, "\r\n"), c.want) << c.tz;
    }
    if (old != nullptr)
        setenv("TZ", keep.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

}  // namespace
}  // namespace korv
