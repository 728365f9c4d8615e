// The server process end to end: the main log's line format, the ways of
// stopping it, reloading and restarting it, the crash copy of an unclean
// end, and the admin ports answering beside FTP.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

std::string config_named(const std::string& name) {
    std::string c = KorvServer::basic_config();
    size_t at = c.find("name=\"test\"");
    return c.replace(at, 11, "name=\"" + name + "\"");
}

void touch(const std::string& path) { std::ofstream(path, std::ios::app); }

// Connects until the greeting holds `want`, within the bound.
bool greeting_becomes(const KorvServer& s, const std::string& want, int timeout_ms = 15000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        FtpClient c;
        if (c.connect(s.ftp_port()) && c.reply() == want) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

TEST(Process, MainLogLinesCarryStampLevelAndThread) {
    KorvServer s(KorvServer::basic_config());
    ASSERT_TRUE(s.start());
    ASSERT_TRUE(s.stop());
    const std::regex line_re(R"(\d\d \d\d:\d\d:\d\d\.\d\d:(Err!|Info|dbug):\d+: .*)");
    std::istringstream in(s.log_text());
    std::string line;
    int checked = 0;
    bool start_line = false, stop_line = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();  // texts that end in CR LF
        if (line.empty()) continue;
        EXPECT_TRUE(std::regex_match(line, line_re)) << line;
        ++checked;
        if (std::regex_match(line, std::regex(R"(.*:Info:\d+: Korvane \S+ Starting - built on .+)"))) start_line = true;
        if (std::regex_match(line, std::regex(R"(.*:Err!:\d+: Shutdown called - Signal Terminate)"))) stop_line = true;
    }
    EXPECT_GT(checked, 10);
    EXPECT_TRUE(start_line);
    EXPECT_TRUE(stop_line);
}

// Every way of asking the server to end leaves it ended within seconds, with
// mon.exit touched for the monitor and no pid file to suggest a crash.
TEST(Process, StopRequestsEndTheServerCleanly) {
    enum How { kStopOption, kExitFile, kSigterm, kSigint };
    for (How how : {kStopOption, kExitFile, kSigterm, kSigint}) {
        SCOPED_TRACE(how);
        KorvServer s(KorvServer::basic_config());
        ASSERT_TRUE(s.start());
        ASSERT_TRUE(fs::exists(s.path("korvane.pid")));
        FtpClient session;
        ASSERT_TRUE(session.connect(s.ftp_port()));
        ASSERT_EQ(session.reply().substr(0, 4), "220 ");
        switch (how) {
        case kStopOption: {
            int st = s.run_again({"-stop"});
            ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
            break;
        }
        case kExitFile:
            touch(s.path("korvane.exit"));
            break;
        case kSigterm:
            s.signal(SIGTERM);
            break;
        case kSigint:
            s.signal(SIGINT);
            break;
        }
        int st = 0;
        ASSERT_TRUE(s.wait_exit(15000, &st)) << "still running";
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
        EXPECT_TRUE(session.wait_closed(5000)) << "an open session outlived the server";
        EXPECT_TRUE(fs::exists(s.path("mon.exit")));
        EXPECT_FALSE(fs::exists(s.path("korvane.pid")));
        EXPECT_FALSE(fs::exists(s.path("korvane.exit")));
        std::ifstream ss(s.path("startstop.log"));
        std::string all((std::istreambuf_iterator<char>(ss)), std::istreambuf_iterator<char>());
        EXPECT_NE(all.find("Korvane 0.1.0 Starting"), std::string::npos) << all;
    }
}

// SIGHUP and the reload file both make new connections see the new settings,
// while a session that began before keeps the tables it started with.
TEST(Process, ReloadReachesNewSessionsOnly) {
    enum How { kSighup, kReloadFile };
    for (How how : {kSighup, kReloadFile}) {
        SCOPED_TRACE(how);
        KorvServer s(config_named("first"));
        ASSERT_TRUE(s.start());
        FtpClient old;
        ASSERT_TRUE(old.connect(s.ftp_port()));
        ASSERT_EQ(old.reply(), "220 Korvane first (Version 0.1.0)\r\n");
        ASSERT_EQ(old.cmd("USER ftp").substr(0, 4), "331 ");
        ASSERT_EQ(old.cmd("PASS a@b.c").substr(0, 4), "230 ");
        ASSERT_TRUE(s.rewrite_config(config_named("second")));
        if (how == kSighup)
            s.signal(SIGHUP);
        else
            touch(s.path("korvane.reload"));
        EXPECT_TRUE(greeting_becomes(s, "220 Korvane second (Version 0.1.0)\r\n"));
        std::string stat = old.cmd("STAT");
        EXPECT_EQ(stat.substr(0, 30), "211-first FTP server status:\r\n") << stat;
        if (how == kReloadFile) {
            EXPECT_FALSE(fs::exists(s.path("korvane.reload")));
        }
        EXPECT_TRUE(s.running());
    }
}

TEST(Process, InternalRestartKeepsPidAndRereadsSettings) {
    KorvServer s(config_named("before"));
    ASSERT_TRUE(s.start());
    pid_t pid = s.pid();
    FtpClient old;
    ASSERT_TRUE(old.connect(s.ftp_port()));
    ASSERT_EQ(old.reply(), "220 Korvane before (Version 0.1.0)\r\n");
    ASSERT_TRUE(s.rewrite_config(config_named("after")));
    touch(s.path("korvane.restart"));
    ASSERT_TRUE(s.wait_log("Korvane Restart activated."));
    // Sessions of the old run are told and closed.
    EXPECT_EQ(old.reply(), "500 Server Restarting. Please try again soon\r\n");
    EXPECT_TRUE(greeting_becomes(s, "220 Korvane after (Version 0.1.0)\r\n"));
    EXPECT_TRUE(s.running());
    EXPECT_EQ(s.pid(), pid);
    EXPECT_EQ(std::to_string(pid) + "\n", [&] {
        std::ifstream in(s.path("korvane.pid"));
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }());
    EXPECT_TRUE(s.wait_log("Korvane 0.1.0 Restarting - built on"));
    EXPECT_FALSE(fs::exists(s.path("korvane.restart")));
}

// A pid file left by a run that did not end cleanly makes the next start keep
// the tail of the old log, from a line start.
TEST(Process, LeftoverPidFileKeepsCrashCopyOfLog) {
    KorvServer s(KorvServer::basic_config());
    {
        std::ofstream log(s.path("korvane.log"));
        for (int i = 0; i < 40000; ++i) log << "old line " << i << "\n";
        std::ofstream(s.path("korvane.pid")) << "12345\n";
    }
    ASSERT_TRUE(s.start());
    std::ifstream in(s.path("korvane_crash.log"));
    std::string crash((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(crash.empty());
    EXPECT_LE(crash.size(), 500000u);
    EXPECT_EQ(crash.rfind("old line 39999\n"), crash.size() - 15);
    EXPECT_EQ(crash.compare(0, 9, "old line "), 0) << crash.substr(0, 40);
}

TEST(Process, AdminPortsAskForThePasswordWhileFtpServes) {
    KorvServer s(KorvServer::basic_config());
    ASSERT_TRUE(s.start());
    FtpClient web;
    ASSERT_TRUE(web.connect(s.mgr_port()));
    ASSERT_TRUE(web.send_raw("GET / HTTP/1.0\r\n\r\n"));
    std::string page = web.read_raw(10000);
    EXPECT_EQ(page.compare(0, 27, "HTTP/1.0 401 Unauthorized\r\n"), 0) << page;
    // The FTP port still serves while an admin connection is open.
    FtpClient ftp;
    ASSERT_TRUE(ftp.connect(s.ftp_port()));
    EXPECT_EQ(ftp.reply().substr(0, 4), "220 ");
}

// Help, a wrong command line and an unreadable configuration all end the
// start at once with a status of their own: never an abort, never a server.
TEST(Process, HelpWrongOptionsAndUnreadableConfigurationEndTheStart) {
    KorvServer s(KorvServer::basic_config());
    fs::create_directories(s.path("adir"));
    const KorvServer::Run help = s.run_bare({"--help"});
    ASSERT_TRUE(WIFEXITED(help.status) && WEXITSTATUS(help.status) == 0) << help.status;
    EXPECT_EQ(help.out.rfind("Usage: korvane", 0), 0u) << help.out;
    EXPECT_NE(help.out.find("\n  -config FILE "), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("\n  -test "), std::string::npos) << help.out;
    EXPECT_EQ(help.err, "");

    const std::string missing = s.path("missing.ini");
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    } cases[] = {
        {{"-help"}, 0, help.out, ""},
        {{"-h", "-nosuch"}, 0, help.out, ""},
        {{"-test", "-nosuch"}, 2, "", "korvane: unknown option -nosuch\n" + help.out},
        {{"-test", "-config", missing}, 1, "", "korvane: cannot read configuration " + missing + ": No such file or directory\n"},
        {{"-stop", "-config", missing}, 1, "", "korvane: cannot read configuration " + missing + ": No such file or directory\n"},
        {{"-test", "-config", s.path("adir")}, 1, "", "korvane: cannot read configuration " + s.path("adir") + ": Is a directory\n"},
    };
    for (const auto& k : cases) {
        std::string line;
        for (const std::string& a : k.args) line += a + " ";
        SCOPED_TRACE(line);
        KorvServer::Run r = s.run_bare(k.args);
        EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == k.status) << r.status;
        EXPECT_EQ(r.out, k.out);
        EXPECT_EQ(r.err, k.err);
    }
    EXPECT_FALSE(fs::exists(s.path("korvane.log")));
}

}  // namespace
}  // namespace korv::test
