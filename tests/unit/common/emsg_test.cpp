// The main log: line format, levels, the error log, rotation by size and by
// day, generation and dated names, and lines from many threads at once.
#include "common/emsg.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/threads.h"
#include "common/mutex.h"

namespace korv {
namespace fs = std::filesystem;
namespace {

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> lines_of(const fs::path& p) {
    std::vector<std::string> out;
    std::ifstream in(p);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

class Log : public ::testing::Test {
protected:
    void SetUp() override {
        mutex_init();
        dir_ = fs::temp_directory_path() /
               ("korv_emsg_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        log_ = dir_ / "k.log";
        err_ = dir_ / "k.err";
        emsg_setautoroll(1);
        emsg_setflush(0);
        emsg_setlvl("info");
    }
    void TearDown() override {
        emsg_open("");
        web_log_close();
        fs::remove_all(dir_);
    }
    void open_log() { ASSERT_EQ(emsg_open(log_.c_str()), 1); }
    fs::path dir_, log_, err_;
};

TEST_F(Log, LineFormatAndErrorLog) {
    open_log();
    EXPECT_EQ(emsg_fname(), log_.string());
    EXPECT_EQ(emsg_fname_err(), err_.string());
    emsg("broken %d\n", 42);
    imsg("plain\n");
    emsg_flush();
    auto lines = lines_of(log_);
    ASSERT_EQ(lines.size(), 2u);
    const std::string stamp = "[ 0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{2}";
    const std::string tid = std::to_string(th_id());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(stamp + ":Err!:" + tid + ": broken 42"))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(stamp + ":Info:" + tid + ": plain"))) << lines[1];
    auto errs = lines_of(err_);
    ASSERT_EQ(errs.size(), 1u);  // only level 0, without the thread id
    EXPECT_TRUE(std::regex_match(errs[0], std::regex(stamp + ":Err!: broken 42"))) << errs[0];
}

// A text without its line end must not run into the next entry, and one
// that has it must not gain a blank line; the console gets the same.
TEST_F(Log, EveryEntryEndsItsLineOnce) {
    const struct {
        const char* text;
        const char* written;  // after the "stamp:label:thread: " head
    } cases[] = {
        {"ended\n", "ended\n"},
        {"bare", "bare\n"},
        {"", "\n"},
        {"crlf\r\n", "crlf\r\n"},
        {"cr only\r", "cr only\r\n"},
    };
    open_log();
    for (const auto& c : cases) emsg("%s", c.text);
    emsg_flush();
    const std::string head = "[ 0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{2}:Err!:" +
                             std::to_string(th_id()) + ": ";
    std::string want;
    for (const auto& c : cases) want += head + std::regex_replace(c.written, std::regex("\r"), "\\r");
    EXPECT_TRUE(std::regex_match(slurp(log_), std::regex(want))) << slurp(log_);

    emsg_open("");
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        emsg("%s", c.text);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.written) << c.text;
    }
}

// Text from a client can never start a log line of its own.
TEST(LogEscape, ControlBytesAreShownNotWritten) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain\n", "plain\n"},
        {"crlf\r\n", "crlf\r\n"},
        {"NOOP\nFAKE LOG LINE\n", "NOOP\\x0aFAKE LOG LINE\n"},
        {"a\r\nb", "a\\x0d\\x0ab"},
        {"t\tz\x7f\x01\n", "t\\x09z\\x7f\\x01\n"},
        {"\xc3\xa9", "\xc3\xa9"},  // UTF-8 stays as it is
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(log_escape(in), out) << in;
}

TEST_F(Log, LevelDecidesWhichLinesAreWritten) {
    open_log();
    struct Case {
        const char* name;
        int number;
        size_t lines;  // of the three written below
    } cases[] = {{"error", 0, 1}, {"INFO", 1, 2}, {"debug", 2, 3}};
    for (const Case& c : cases) {
        EXPECT_EQ(emsg_setlvl(c.name), c.number);
        EXPECT_EQ(emsg_setlvl("verbose"), -1);  // an unknown name changes nothing
        EXPECT_EQ(emsg_level(), c.number);
        emsg_close();
        fs::remove(log_);
        open_log();
        emsg("e\n");
        imsg("i\n");
        dmsg("d\n");
        emsg_flush();
        EXPECT_EQ(lines_of(log_).size(), c.lines) << c.name;
    }
}

TEST_F(Log, NoLogFileMeansStandardOutput) {
    testing::internal::CaptureStdout();
    emsg("to the console\n");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "to the console\n");
}

TEST_F(Log, MissingDirectoryIsMade) {
    fs::path deep = dir_ / "a" / "b" / "k.log";
    ASSERT_EQ(emsg_open(deep.c_str()), 1);
    emsg("x\n");
    emsg_flush();
    EXPECT_EQ(lines_of(deep).size(), 1u);
    EXPECT_EQ(fs::status(dir_ / "a").permissions() & fs::perms::all,
              fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec | fs::perms::others_read |
                  fs::perms::others_exec);
}

// A line counts its length less 11 bytes, and the log rolls once the count
// passes 1800000; the count starts at the size of the file found on opening.
TEST_F(Log, SizeRotationCountsBeyondElevenBytes) {
    std::ofstream(log_) << std::string(kLogRollSize - 1, 'x') << '\n';
    open_log();
    for (int i = 0; i < 50; i++) imsg("%s", "0123456789\n");  // 11 bytes: counts nothing
    EXPECT_FALSE(fs::exists(dir_ / "k2.log"));
    imsg("%s", "0123456789A\n");  // 12 bytes: one over the limit
    emsg_flush();
    ASSERT_TRUE(fs::exists(dir_ / "k2.log"));
    auto fresh = lines_of(log_);
    ASSERT_EQ(fresh.size(), 1u);
    EXPECT_NE(fresh[0].find(": 0123456789A"), std::string::npos);
    EXPECT_EQ(lines_of(dir_ / "k2.log").size(), 51u);

    // After rolling the count starts again from nothing: 1800 lines that count
    // 1000 bytes each fill it exactly, and the next one rolls.
    std::string body(1000 + 11 - 1, 'y');
    for (int i = 0; i < 1800; i++) imsg("%s\n", body.c_str());
    EXPECT_FALSE(fs::exists(dir_ / "k3.log"));
    imsg("%s\n", body.c_str());
    EXPECT_TRUE(fs::exists(dir_ / "k3.log"));
    EXPECT_EQ(lines_of(dir_ / "k2.log").size(), 1801u);
}

TEST_F(Log, WithoutAutorollTheLogOnlyGrows) {
    emsg_setautoroll(0);
    std::ofstream(log_) << std::string(kLogRollSize + 10, 'x') << '\n';
    open_log();
    imsg("%s\n", std::string(100, 'z').c_str());
    emsg_flush();
    EXPECT_FALSE(fs::exists(dir_ / "k2.log"));
    EXPECT_GT(fs::file_size(log_), static_cast<uintmax_t>(kLogRollSize + 100));
}

TEST_F(Log, ErrorLogRollsOnItsOwnLimit) {
    std::ofstream(err_) << std::string(kErrLogRollSize, 'x') << '\n';
    open_log();
    emsg("%s\n", "short line but twelve");
    EXPECT_TRUE(fs::exists(dir_ / "k2.err"));
    EXPECT_FALSE(fs::exists(dir_ / "k2.log"));
    emsg("after\n");
    emsg_flush();
    auto errs = lines_of(err_);
    ASSERT_EQ(errs.size(), 1u);
    EXPECT_NE(errs[0].find("after"), std::string::npos);
}

TEST_F(Log, RotationKeepsSixGenerations) {
    std::string base = (dir_ / "k").string();
    for (int g = 0; g < kLogGenerations; g++) {
        std::ofstream(emsg_fname_n(log_.string(), g)) << "gen" << g << '\n';
    }
    emsg_rotate(log_.c_str());
    EXPECT_FALSE(fs::exists(log_));
    for (int g = 1; g < kLogGenerations; g++) {
        EXPECT_EQ(slurp(emsg_fname_n(log_.string(), g)), "gen" + std::to_string(g - 1) + "\n") << g;
    }
    EXPECT_FALSE(fs::exists(base + "7.log"));
}

TEST(LogNames, GenerationNames) {
    struct Case {
        const char* fname;
        int i;
        const char* want;
    } cases[] = {
        {"/var/log/korvane.log", 0, "/var/log/korvane.log"},
        {"/var/log/korvane.log", 1, "/var/log/korvane2.log"},
        {"/var/log/korvane.log", 5, "/var/log/korvane6.log"},
        {"/srv/v1.2/app.err", 2, "/srv/v1.2/app3.err"},
        {"rel.x.txt", 1, "rel.x2.txt"},
    };
    for (const Case& c : cases) EXPECT_EQ(emsg_fname_n(c.fname, c.i), c.want) << c.fname << " " << c.i;
}

TEST(LogNamesDeath, NameWithoutDotIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(emsg_fname_n("/var/log.d/korvane", 1), "emsg fname failed \\(/var/log.d/korvane\\)");
}

TEST(LogNames, DatedNames) {
    tm when{};
    when.tm_year = 2024 - 1900;
    when.tm_mon = 2;  // March
    when.tm_mday = 5;
    when.tm_hour = 12;
    when.tm_isdst = -1;
    time_t t = mktime(&when);
    EXPECT_EQ(emsg_fname_date_at("/l/xfer.log", t, t + 86400), "/l/xfer_240305.log");
    EXPECT_EQ(emsg_fname_date_at("/l/xfer.log", t, t + 82800), "/l/xfer_240305.log");
    EXPECT_EQ(emsg_fname_date_at("/l/xfer.log", t, t + 82799), "/l/xfer.log");
    EXPECT_EQ(emsg_fname_date_at("/l/xfer.log", t, t), "/l/xfer.log");
    EXPECT_EQ(emsg_fname_date("/l/xfer.log", time(nullptr) - 30 * 86400).substr(0, 8), "/l/xfer_");
}

TEST_F(Log, DailyRotationMovesBothLogsAfterADay) {
    open_log();
    emsg("day one\n");
    emsg_flush();
    tm when{};
    when.tm_year = 2031 - 1900;
    when.tm_mon = 0;
    when.tm_mday = 2;
    when.tm_hour = 10;
    when.tm_isdst = -1;
    time_t t0 = mktime(&when);
    EXPECT_EQ(emsg_dayly_logging_rotate_at(t0), 1);  // notes the time only
    EXPECT_EQ(emsg_dayly_logging_rotate_at(t0 + 86399), 1);
    EXPECT_TRUE(fs::exists(log_));
    EXPECT_EQ(emsg_dayly_logging_rotate_at(t0 + 86400), 1);
    EXPECT_EQ(lines_of(dir_ / "k20310103.log").size(), 1u);
    EXPECT_EQ(lines_of(dir_ / "k20310103.err").size(), 1u);
    emsg("day two\n");
    emsg_flush();
    auto fresh = lines_of(log_);
    ASSERT_EQ(fresh.size(), 1u);
    EXPECT_NE(fresh[0].find("day two"), std::string::npos);
    EXPECT_EQ(emsg_dayly_logging_rotate_at(t0 + 86400 + 3600), 1);  // not yet a day since
    EXPECT_TRUE(fs::exists(log_));

    std::string archive;
    EXPECT_EQ(do_emsg_dayly_logging_rotate(t0, (dir_ / "none.log").c_str(), ".log", archive), 0);
    EXPECT_EQ(archive, (dir_ / "none20310102.log").string());
    EXPECT_EQ(do_emsg_dayly_logging_rotate(t0, (dir_ / "plain").c_str(), ".log", archive), 0);
    EXPECT_EQ(archive, (dir_ / "plain20310102.log").string());
}

TEST_F(Log, ManyThreadsNeverInterleave) {
    open_log();
    constexpr int kThreads = 4, kLines = 500;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; t++) {
        ts.emplace_back([t] {
            for (int i = 0; i < kLines; i++) imsg("thread %d line %d %s\n", t, i, std::string(200, 'q').c_str());
        });
    }
    for (auto& t : ts) t.join();
    emsg_flush();
    auto lines = lines_of(log_);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::regex shape(".*:Info:[0-9]+: thread [0-3] line [0-9]+ q{200}");
    for (const auto& l : lines) ASSERT_TRUE(std::regex_match(l, shape)) << l;
}

TEST_F(Log, WebLogSitsBesideTheMainLogAndIsDroppedWhenLarge) {
    open_log();
    fs::path web = dir_ / "wweb.log";
    web_log("GET %s\n", "/index.htm");
    web_log_close();
    std::string text = slurp(web);
    EXPECT_NE(text.find(" [" + std::to_string(th_id()) + "] GET /index.htm\n"), std::string::npos) << text;
    std::string big(1000, 'w');
    for (int i = 0; i < 120 && fs::exists(web); i++) web_log("%s\n", big.c_str());
    EXPECT_FALSE(fs::exists(web));
}

}  // namespace
}  // namespace korv
