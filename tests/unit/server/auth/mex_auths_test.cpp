// Authentication modules over real child processes: shell scripts that answer well, late, twice,
// with the wrong user or not at all, several waiters on one module, row choice and restarts.
#include "server/auth/mex_auths.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "base/fmt.h"

namespace korv {
namespace {

std::mutex g_log_lock;
std::vector<std::string> g_log;

int capture(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string s = vstrfmt(format, ap);
    va_end(ap);
    std::lock_guard<std::mutex> g(g_log_lock);
    g_log.push_back(s);
    return 1;
}

int log_count(const std::string& needle) {
    std::lock_guard<std::mutex> g(g_log_lock);
    int n = 0;
    for (const std::string& s : g_log) n += s.find(needle) != std::string::npos;
    return n;
}

multi_auth_scenario setup(const std::string& domain, const std::string& command) {
    multi_auth_scenario s;
    s.domain_name = domain;
    s.authentication_command = command;
    return s;
}

constexpr const char* kReset = "-ERR External process failed, due to reset\r\n";

// A module: reads "verb user pass" and runs `body` with $v, $u, $p set.
std::string module_script(const std::string& body) {
    return "while IFS=' ' read -r v u p; do\n"
           "  [ \"$v\" = exit ] && exit 0\n" +
           body + "\ndone\n";
}

class MexTest : public ::testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        char tmpl[] = "/tmp/mex_testXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        std::lock_guard<std::mutex> g(g_log_lock);
        g_log.clear();
    }
    void TearDown() override {
        mex_shutdown();
        mex_set_request_timeout(kMexRequestTimeout);
        mex_setrestart(0);
        std::system(("rm -rf " + dir_).c_str());
    }
    // A command line that runs `body` as a module.
    std::string module(const std::string& name, const std::string& body) {
        std::string path = dir_ + "/" + name + ".sh";
        std::ofstream(path) << module_script(body);
        return "/bin/sh " + path;
    }
    void start(std::vector<multi_auth_scenario> rows) {
        mex_init(capture, capture, static_cast<int>(rows.size()), rows.data());
    }
    void start_default(const std::string& body) { start({setup("", module("m", body))}); }

    std::string dir_;
};

TEST(MexNames, OnlyNamesARequestCanCarry) {
  const struct {
    std::string name;
    int ok;
  } cases[] = {
      {"bob", 1}, {"a.b-c_d@example.org", 1}, {"\xc3\xa9l\xc3\xa8ve", 1}, {std::string(256, 'a'), 1},
      {"", 0},    {"a b", 0},  {"a\tb", 0},  {"#x", 0},  {"a#", 0},  {"a\x7f", 0},  {"a\r\nb", 0},
      {std::string(257, 'a'), 0},
  };
  for (const auto& c : cases) EXPECT_EQ(mex_name_ok(c.name), c.ok) << c.name;
}

TEST_F(MexTest, ReplyShapes) {
    struct Case {
        const char* name;
        const char* body;
        int ok;
        const char* result;  // the reply as mex_check leaves it
        bool restarted;
    };
    const Case cases[] = {
        {"accepted", R"(echo "+OK $u ok groups=\"a b\"")", 1, "+OK fred ok groups=\"a b\"", false},
        {"refused", R"(echo "-ERR $u bad login")", 0, "-ERR fred bad login", false},
        {"dead word", R"(echo "-DEAD $u gone away")", 0, "-DEAD fred gone away", false},
        {"split over reads", R"(printf '+OK fr'; sleep 0.2; printf 'ed ok\n')", 1, "+OK fred ok", false},
        {"data lines first", R"(echo "+DATA one"; echo "note"; echo "+OK $u ok")", 1, "+OK fred ok", false},
        {"wrong user", R"(echo "+OK other ok")", 0, "+OK other ok", true},
        {"two words", R"(echo "+OK $u")", 0, "+OK fred", true},
        {"module dies", "exit 3", 0, kReset, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        start_default(c.body);
        int spawned = log_count("Spawned (");
        std::string result;
        EXPECT_EQ(mex_check("", "fred", "pw", result), c.ok);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(log_count("Spawned (") > spawned, c.restarted);
        mex_shutdown();
    }
    EXPECT_GE(log_count("Wrong user returned"), 1);
}

TEST_F(MexTest, LookupWithoutPasswordAndNoPasswordInLogs) {
    start_default(R"(echo "+OK $u $v")");
    std::string result;
    EXPECT_EQ(mex_check("", "fred", nullptr, result), 1);
    EXPECT_EQ(result, "+OK fred lookup");
    EXPECT_EQ(mex_check("", "fred", "sekrit", result), 1);
    EXPECT_EQ(result, "+OK fred check");
    EXPECT_EQ(log_count("sekrit"), 0);
    EXPECT_EQ(log_count("cmd=(check **** *****)"), 1);
}

// Two final lines in one read: the second waits in the buffer and answers the next request,
// which the user check catches.
TEST_F(MexTest, StaleSecondReplyIsCaught) {
    start_default(R"(printf '+OK %s ok\n+OK stale ok\n' "$u")");
    std::string result;
    EXPECT_EQ(mex_check("", "fred", "pw", result), 1);
    EXPECT_EQ(log_count("P_READY state and more data"), 1);
    EXPECT_EQ(mex_check("", "bob", "pw", result), 0);
    EXPECT_EQ(result, "+OK stale ok");
    EXPECT_EQ(log_count("Wrong user returned"), 1);
    // The restarted module answers properly again.
    EXPECT_EQ(mex_check("", "bob", "pw", result), 1);
    EXPECT_EQ(result, "+OK bob ok");
}

TEST_F(MexTest, SilentModuleIsEndedAtTheLimitAndRespawned) {
    mex_set_request_timeout(1);
    start_default(R"([ "$u" = fred ] || echo "+OK $u ok")");
    std::string result;
    EXPECT_EQ(mex_check("", "fred", "pw", result), 0);
    EXPECT_EQ(result, kReset);
    EXPECT_EQ(log_count("spawn poll timeout"), 1);
    EXPECT_EQ(mex_check("", "bob", "pw", result), 1);
}

TEST_F(MexTest, ConcurrentWaitersEachGetTheirOwnReply) {
    start_default(R"(sleep 0.02; echo "+OK $u ok $p")");
    constexpr int kThreads = 8;
    std::vector<std::string> results(kThreads);
    std::vector<int> oks(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 3; ++round) {
                std::string user = strfmt("user%d", i), pass = strfmt("pw%d.%d", i, round);
                oks[i] += mex_check("", user.c_str(), pass.c_str(), results[i]);
                if (results[i] != "+OK " + user + " ok " + pass) return;
            }
        });
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(oks[i], 3) << i;
        EXPECT_EQ(results[i], strfmt("+OK user%d ok pw%d.2", i, i));
    }
}

TEST_F(MexTest, ShutdownAnswersAWaiter) {
    const std::string got = dir_ + "/got";
    start_default(": > " + got);  // notes the request, never answers
    std::string result;
    std::thread waiter([&] { mex_check("", "fred", "pw", result); });
    struct stat st;
    auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (stat(got.c_str(), &st) != 0 && std::chrono::steady_clock::now() < give_up)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    mex_shutdown();
    waiter.join();
    EXPECT_EQ(result, "-ERR External process failed shutdown\r\n");
    EXPECT_EQ(mex_check("", "fred", "pw", result), 0);
    EXPECT_EQ(result, "-ERR mex_init was not called with real imsg ptr");
}

TEST_F(MexTest, RowChoiceByDomain) {
    start({setup("", module("a", R"(echo "+OK $u default")")),
           setup("Sales", module("b", R"(echo "+OK $u sales")"))});
    std::string result;
    EXPECT_EQ(mex_check("sales", "fred", "pw", result), 1);
    EXPECT_EQ(result, "+OK fred sales");
    EXPECT_EQ(mex_check("other", "fred", "pw", result), 1);
    EXPECT_EQ(result, "+OK fred default");
    EXPECT_EQ(mex_count_external_auth_processes(), 2);

    // A domain that gives up its module falls back to the default row.
    mex_restart_domain("sales", "", 0);
    EXPECT_EQ(mex_check("sales", "fred", "pw", result), 1);
    EXPECT_EQ(result, "+OK fred default");
    // A new default module replaces the old one.
    mex_restart_domain(nullptr, module("c", R"(echo "+OK $u new")").c_str(), 1);
    EXPECT_EQ(mex_check("other", "fred", "pw", result), 1);
    EXPECT_EQ(result, "+OK fred new");
}

TEST_F(MexTest, NoModuleForTheDomain) {
    start({setup("", "")});
    std::string result;
    EXPECT_EQ(mex_check("x", "fred", "pw", result), 0);
    EXPECT_EQ(result, "-ERR This Domain (x) authentication does not support command (check **** *****)");
    std::string info;
    mex_information(info);
    EXPECT_EQ(info, strfmt(" %7s %6s %15s  %s\n", "PID", "Cmds ", "Domain", "Authentication Module") +
                        strfmt(" % 7d %6.6s %15s  %s\n", 0, "0", "(default)", "system authentication") +
                        "    (1 listed)\n");
}

TEST_F(MexTest, RestartAfterSetNumberOfRequests) {
    start_default(R"(echo "+OK $u ok")");
    mex_setrestart(2);
    std::string result;
    int spawned = log_count("Spawned (");
    // A module serves `restart` + 1 requests; the next one finds it started afresh.
    for (int i = 0; i < 3; ++i) ASSERT_EQ(mex_check("", "fred", "pw", result), 1);
    EXPECT_EQ(log_count("Spawned ("), spawned);
    ASSERT_EQ(mex_check("", "fred", "pw", result), 1);
    EXPECT_EQ(log_count("Spawned ("), spawned + 1);
}

void collect(void* p1, const char* line) { static_cast<std::vector<std::string>*>(p1)->push_back(line); }

TEST_F(MexTest, SearchHandsDataLinesToTheCallback) {
    start_default(R"(echo "+DATA alice"; echo "+DATA bob"; echo "+OK $u 2 found")");
    std::vector<std::string> lines;
    std::string result;
    EXPECT_EQ(mex_search("", "*", result, collect, &lines), 1);
    EXPECT_EQ(lines, (std::vector<std::string>{"+DATA alice", "+DATA bob"}));
    EXPECT_EQ(result, "+OK * 2 found");
}

TEST(MexDecode, TakesFieldsOut) {
    struct Case {
        const char* data;
        const char* field;
        int found;
        const char* value;
        const char* rest;
    };
    const Case cases[] = {
        {R"(+OK u x groups="a,b"  ftphome="/h")", "groups", 1, "a,b", R"(+OK u x ftphome="/h")"},
        {R"(+OK u x ftphome="/h")", "ftphome", 1, "/h", "+OK u x "},
        {R"(+OK u x ftphome="/open)", "ftphome", 1, "/open", "+OK u x "},
        {R"(+OK u x ftpquota="5")", "quota", 1, "5", "+OK u x ftp"},  // matches inside longer names
        {R"(+OK u x groups="a")", "ftphome", 0, "", R"(+OK u x groups="a")"},
        {R"(+OK u x groups=a)", "groups", 0, "", R"(+OK u x groups=a)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.data);
        std::string data = c.data, value = "old";
        EXPECT_EQ(mex_decode(data, c.field, value), c.found);
        EXPECT_EQ(value, c.value);
        EXPECT_EQ(data, c.rest);
    }
    std::string data = "+OK u x tohost=\"" + std::string(5000, 'h') + "\"", value;
    EXPECT_EQ(mex_decode(data, "tohost", value), 1);
    EXPECT_EQ(value.size(), static_cast<size_t>(kMexFieldMax));
    EXPECT_EQ(data, "+OK u x ");
}

}  // namespace
}  // namespace korv
