// The pieces of the admin pages that need no connection: which static file
// names stay in the web directory, which form values may be written, the tail
// of a log file, and the status table over a full session table (its render
// time is printed, not asserted).
#include "server/admin/webadmin.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>
#include <cstdio>
#include <fstream>
#include <vector>

#include "common/mutex.h"
#include "tests/support/chanpair.h"
#include "server/session/link.h"
#include "server/settings/ini.h"

namespace korv {
namespace {

TEST(AdminFileName, OnlyNamesInsideTheDirectory) {
    const struct {
        const char* name;
        int ok;
    } cases[] = {
        {"korvane.css", 1},
        {"img/help.png", 1},
        {"a.b.htm", 1},
        {"../korvane.ini", 0},
        {"%2e%2e/korvane.ini", 0},
        {"%2E%2E%2Fkorvane.ini", 0},
        {"x/../../etc/passwd", 0},
        {"/etc/passwd", 0},
        {"%2fetc/passwd", 0},
        {"\\etc\\passwd", 0},
        {"a\\..\\b", 0},
        {"a//b", 0},
        {"a%00.htm", 0},
        {"", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(admin_safe_file_name(c.name), c.ok) << c.name;
}

class TailTest : public ::testing::Test {
protected:
    void SetUp() override { path_ = "/tmp/admin_tail_" + std::to_string(getpid()); }
    void TearDown() override { std::remove(path_.c_str()); }
    void write(const std::string& text) { std::ofstream(path_, std::ios::binary) << text; }
    std::vector<std::string> tail(int n) { return admin_tail_lines(path_.c_str(), n); }
    std::string path_;
};

TEST_F(TailTest, LastLinesOldestFirst) {
    using V = std::vector<std::string>;
    write("one\ntwo\nthree\n");
    EXPECT_EQ(tail(2), (V{"two", "three"}));
    EXPECT_EQ(tail(10), (V{"one", "two", "three"}));
    EXPECT_EQ(tail(0), V{});
    write("one\r\ntwo");  // CR LF ends, and a last line without an end
    EXPECT_EQ(tail(5), (V{"one", "two"}));
    write("\n\nx\n");  // empty lines count
    EXPECT_EQ(tail(3), (V{"", "", "x"}));
    write("");
    EXPECT_EQ(tail(5), V{});
    std::remove(path_.c_str());
    EXPECT_EQ(tail(5), V{});
}

TEST_F(TailTest, LongFileReadsOnlyItsEndAndKeepsTheBound) {
    std::string text;
    for (int i = 0; i < 20000; ++i) text += "line " + std::to_string(i) + " " + std::string(40, 'x') + "\n";
    write(text);
    std::vector<std::string> got = tail(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].rfind("line 19997 ", 0), 0u) << got[0];
    EXPECT_EQ(got[2].rfind("line 19999 ", 0), 0u) << got[2];
    got = tail(kLogLinesMax + 100);
    ASSERT_EQ(got.size(), static_cast<size_t>(kLogLinesMax));
    EXPECT_EQ(got.front().rfind("line " + std::to_string(20000 - kLogLinesMax) + " ", 0), 0u) << got.front();
}

TEST(AdminStatus, ThousandSessionsOneRowEachEscaped) {
    mutex_init();
    const std::string ini = "/tmp/admin_status_" + std::to_string(getpid()) + ".ini";
    std::ofstream(ini) << "global_settings\n home \"/tmp\"\nvdomain address=\"\" name=\"a\"\n";
    ASSERT_EQ(ini_read("korvane", ini.c_str()), 1);
    std::remove(ini.c_str());
    constexpr int kSessions = 1000;
    std::vector<Link*> links;
    for (int i = 0; i < kSessions; ++i) {
        Link* l = nullptr;
        ASSERT_EQ(link_new(&l), 1);
        l->user = i == 0 ? "<script>x</script>" : "user" + std::to_string(i);
        l->ipnum = "10.0.0." + std::to_string(i % 250);
        l->sent = i;
        link_state_set(l, i == 1 ? "RETR \"a&b\"" : "Idle");
        links.push_back(l);
    }
    auto t0 = std::chrono::steady_clock::now();
    std::string html = mgr_status_html();
    auto ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("status table of %d sessions: %.2f ms, %zu bytes\n", kSessions, ms, html.size());

    size_t rows = 0;
    for (size_t at = html.find("<tr><td>"); at != std::string::npos; at = html.find("<tr><td>", at + 1)) ++rows;
    EXPECT_EQ(rows, static_cast<size_t>(kSessions));
    EXPECT_EQ(html.find("<script>"), std::string::npos);
    EXPECT_NE(html.find("&lt;script&gt;x&lt;/script&gt;"), std::string::npos);
    EXPECT_EQ(html.find("RETR \"a"), std::string::npos) << "state texts are escaped";
    EXPECT_NE(html.find("a&amp;b"), std::string::npos);
    for (Link*& l : links) link_free(&l);
    EXPECT_NE(mgr_status_html().find("No connections."), std::string::npos);
    ini_free_all();
}

// mgr_main on the server end of a loopback pair, the client end left to the
// test; ends the thread and frees the record when it goes.
class AdminConnTest : public ::testing::Test {
protected:
    void SetUp() override {
        mutex_init();
        ini_ = "/tmp/admin_conn_" + std::to_string(getpid()) + ".ini";
        std::ofstream(ini_) << "global_settings\n home \"/tmp\"\nvdomain address=\"\" name=\"a\"\n";
        ASSERT_EQ(ini_read("korvane", ini_.c_str()), 1);
        ChanPtr server;
        ASSERT_TRUE(test::make_chan_pair(client_, server));
        ASSERT_EQ(link_new(&l_), 1);
        l_->c = std::move(server);
        done_ = std::async(std::launch::async, [this] { return mgr_main(l_); });
    }
    void TearDown() override {
        client_.reset();
        if (done_.valid()) done_.wait();
        link_free(&l_);
        mgr_set_head_limit_ms(kAdminHeadLimitMs);
        ini_free_all();
        std::remove(ini_.c_str());
    }
    // True once the connection's routine has ended on its own (bounded, for a
    // hung thread); its record, and so the socket, is freed after it.
    bool closed_within(int ms) {
        return done_.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready && done_.get() == 1;
    }
    std::string ini_;
    ChanPtr client_;
    Link* l_ = nullptr;
    std::future<int> done_;
};

// The shortened limit is set before the connection's routine starts, since it
// reads the limit once, at its start.
class AdminSlowConnTest : public AdminConnTest {
protected:
    void SetUp() override {
        mgr_set_head_limit_ms(300);
        AdminConnTest::SetUp();
    }
};

TEST_F(AdminSlowConnTest, SlowHeadEndsAtTheLimit) {
    // A byte every 50 ms keeps every single read within its second.
    const std::string slow = "GET /?cmd=status HTTP/1.0\r\nX-Pad: aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
    size_t sent = 0;
    for (; sent < slow.size() && done_.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready; ++sent)
        tcp_write(client_.get(), &slow[sent], 1);
    EXPECT_LT(sent, slow.size()) << "the connection outlived its head limit";
    EXPECT_TRUE(closed_within(10000));
}

TEST_F(AdminConnTest, HeadLargerThanTheBufferIsClosed) {
    std::string big = "GET /?x=" + std::string(kWebHeadMax + 1000, 'a');
    // The server stops reading once full; what the kernel will not take is dropped.
    for (size_t at = 0; at < big.size();) {
        int n = tcp_write_timed(client_.get(), big.data() + at, static_cast<int>(big.size() - at), 2000);
        if (n <= 0) break;
        at += static_cast<size_t>(n);
    }
    EXPECT_TRUE(closed_within(10000));
}

}  // namespace
}  // namespace korv
