// The monitor's pieces that need no server: the numbered crash records and
// their tails, the probe list, one probe against real listeners, the mail's
// dot-stuffed log lines and the mail limit.
#include "server/monitor/monitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "common/emsg.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

namespace fs = std::filesystem;

std::string strfmt_name(int n) { return "crash" + std::to_string(n) + ".log"; }

// Each case runs in a fresh directory: the records are written in the working directory.
class MonitorDir : public testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/korv-monitor-XXXXXX";
        dir_ = mkdtemp(tmpl);
        old_ = fs::current_path();
        fs::current_path(dir_);
        monitor_setname("korvane");
        monitor_setver("9.8.7");
    }
    void TearDown() override {
        fs::current_path(old_);
        fs::remove_all(dir_);
    }
    static void write(const std::string& f, const std::string& text) { std::ofstream(f, std::ios::binary) << text; }
    static std::string read(const std::string& f) {
        std::ifstream in(f, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::string dir_;
    fs::path old_;
};

TEST_F(MonitorDir, CrashRecordTakesTheFirstFreeNumberAndKeepsAGapAfterIt) {
    const struct {
        std::set<int> present;
        int target;
        int removed;
    } cases[] = {
        {{}, 1, 2},
        {{1, 2, 3}, 4, 5},
        {{1, 3}, 2, 3},                          // the gap after the newest moves on
        {{1, 2, 3, 4, 5, 6, 7, 8, 9}, 1, 2},     // all there: the series starts over
        {{1, 2, 3, 4, 5, 6, 7, 8, 10}, 9, 10},
    };
    for (const auto& c : cases) {
        for (int i = 1; i <= 10; ++i) fs::remove(strfmt_name(i));
        for (int i : c.present) write(strfmt_name(i), "old\n");
        EXPECT_EQ(crash_record("korvane.log"), strfmt_name(c.target));
        EXPECT_FALSE(fs::exists(strfmt_name(c.removed))) << c.target;
        EXPECT_EQ(read(strfmt_name(c.target)).rfind("    Version 9.8.7\r\n    Platform Linux64\r\n", 0), 0u);
        for (int i : c.present) {
            if (i != c.target && i != c.removed) {
                EXPECT_EQ(read(strfmt_name(i)), "old\n") << i;
            }
        }
    }
}

TEST_F(MonitorDir, CrashRecordHoldsTheLogsInOrderAndNamesWhatIsMissing) {
    write("server.log", "the given file\n");
    write("korvane.log", "main log line\n");
    write("startstop.log", "Korvane 0.1 Starting\n");
    ASSERT_EQ(crash_record("server.log"), "crash1.log");
    const std::string rec = read("crash1.log");
    const size_t given = rec.find("WRITING FILE server.log");
    const size_t main = rec.find("WRITING FILE korvane.log");
    const size_t stops = rec.find("WRITING FILE startstop.log");
    ASSERT_NE(given, std::string::npos);
    ASSERT_NE(main, std::string::npos);
    ASSERT_NE(stops, std::string::npos);
    EXPECT_LT(given, main);
    EXPECT_LT(main, stops);
    EXPECT_NE(rec.find("main log line\n"), std::string::npos);
    EXPECT_NE(rec.find("----  Cound not append file (korvane.err)"), std::string::npos) << rec;
}

TEST_F(MonitorDir, CrashRecordThatCannotBeWrittenIsReportedNotFatal) {
    for (int i = 2; i <= 9; ++i) write(strfmt_name(i), "x");
    fs::create_directories("crash1.log/keep");  // a directory no one can open as a file, not even root
    EXPECT_EQ(crash_record("korvane.log"), "");
    EXPECT_TRUE(fs::is_directory("crash1.log"));
}

// Lines of 10 bytes: "L000001..\n".
std::string lines(int n) {
    std::string s;
    char b[16];
    for (int i = 0; i < n; ++i) {
        snprintf(b, sizeof b, "L%06d..\n", i);
        s += b;
    }
    return s;
}

TEST_F(MonitorDir, CrashTailStartsOnAWholeLine) {
    const std::string exact = lines(3000);              // 30000 bytes: whole
    const std::string one_short = exact.substr(1);      // 29999 bytes: whole, first line partial as it is
    const std::string one_over = "X" + exact;           // 30001: the cut line goes, even if whole after the cut
    const std::string longer = lines(5000) + "tail";    // the last 30000 bytes, from a line start
    const struct {
        std::string content, expected;
    } cases[] = {
        {exact, exact},
        {one_short, one_short},
        {one_over, exact.substr(10)},
        {longer, (lines(5000) + "tail").substr(50004 - 30000 + 6)},
        {"", ""},
    };
    for (const auto& c : cases) {
        write("in.log", c.content);
        FILE* out = fopen("out.txt", "wb");
        ASSERT_EQ(crash_append_file(out, "in.log"), 1);
        fclose(out);
        const std::string head = "\n----------------- WRITING FILE in.log ----------------\n";
        EXPECT_EQ(read("out.txt"), head + c.expected) << c.content.size();
    }
}

TEST(MonitorTargets, AddressesPortsAndShortNumbers) {
    const struct {
        const char* list;
        std::vector<std::pair<std::string, int>> want;
    } cases[] = {
        {"", {{"127.0.0.1", 2121}}},
        {"10.0.0.5", {{"10.0.0.5", 2121}}},
        {"21", {{"127.0.0.1", 21}}},                    // a short number is a local port
        {"2121", {{"2121", 2121}}},                     // four digits: a name, probed on the port
        {"10.0.0.5:990, 127.0.0.1 ,,", {{"10.0.0.5", 990}, {"127.0.0.1", 2121}}},
        {"0", {{"0", 2121}}},
    };
    for (const auto& c : cases) {
        std::vector<std::pair<std::string, int>> got;
        for (const MonitorTarget& t : monitor_targets(c.list, 2121)) got.emplace_back(t.host, t.port);
        EXPECT_EQ(got, c.want) << c.list;
    }
}

TEST(MonitorProbe, OnlyAGreetingCounts) {
    unsigned short port = 0;
    ChanPtr listener = test::listen_loopback(&port);
    ASSERT_TRUE(listener);
    for (const char* greeting : {"220 ready\r\n", ""}) {
        std::thread server([&] {
            ChanPtr c = tcp_new_owned();
            if (!tcp_accept(listener.get(), c.get())) return;
            // Silent: held open past the probe's wait, like a hung server.
            if (*greeting) tcp_write(c.get(), greeting, static_cast<int>(strlen(greeting)));
            char b[64];
            tcp_read_timed(c.get(), b, sizeof b, kMonitorProbeWaitMs + 2000);
        });
        std::string response, reason;
        const int ok = check_host_connection({"127.0.0.1", port}, 1, response, reason);
        server.join();
        EXPECT_EQ(ok, *greeting ? 1 : 0) << reason;
        if (*greeting) {
            EXPECT_EQ(response, "220 ready");
        }
    }
    listener.reset();  // now nothing listens there
    std::string response, reason;
    EXPECT_EQ(check_host_connection({"127.0.0.1", port}, 1, response, reason), 0);
    EXPECT_FALSE(reason.empty());
}

TEST_F(MonitorDir, MailLinesAreDotStuffedAndStartOnAWholeLine) {
    ChanPtr client, server;
    ASSERT_TRUE(test::make_chan_pair(client, server));
    write("a.log", "first\n.\n.hidden\r\nplain\nno end");
    write("b.log", "cut line\nwhole\n");
    ASSERT_EQ(monitor_add_file(client.get(), "a.log", 1000), 1);
    ASSERT_EQ(monitor_add_file(client.get(), "b.log", 7), 1);  // starts on the line end of "cut line"
    EXPECT_EQ(monitor_add_file(client.get(), "missing.log", 100), 0);
    client.reset();
    std::string got;
    char b[512];
    for (int r; (r = tcp_read_timed(server.get(), b, sizeof b, 2000)) > 0;) got.append(b, static_cast<size_t>(r));
    EXPECT_EQ(got,
              "\r\n---- a.log\r\nfirst\r\n..\r\n..hidden\r\nplain\r\nno end\r\n"
              "\r\n---- b.log\r\nwhole\r\n"
              "---- Could not read missing.log\r\n");
}

TEST(MonitorMail, ADownRelayIsLoggedAndTheLimitStopsTheMails) {
    unsigned short port = 0;
    { ChanPtr l = test::listen_loopback(&port); }  // a port with no one behind it
    const std::string relay = "127.0.0.1:" + std::to_string(port);
    emsg_setlvl("info");
    testing::internal::CaptureStdout();
    EXPECT_EQ(monitor_email(relay.c_str(), "root@localhost"), 0);
    emsg_flush();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Could not open link to alert manager - second time"), std::string::npos) << out;
    while (monitor_emails_sent() < kMonitorMailsMax) monitor_email(relay.c_str(), "root@localhost");
    testing::internal::CaptureStdout();
    EXPECT_EQ(monitor_email(relay.c_str(), "root@localhost"), 0);
    emsg_flush();
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Not reporting further faults as more than 100 emails have been sent"), std::string::npos)
        << out;
    EXPECT_EQ(out.find("Could not open link"), std::string::npos);
}

}  // namespace
}  // namespace korv
