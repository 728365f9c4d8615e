// The command line and the file helpers of process control.
#include "server/process/control.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace korv {
namespace {

struct Parsed {
    KorvOptions o;
    std::string out, err;
};

Parsed parse(std::vector<std::string> args) {
    args.insert(args.begin(), "korvane");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    Parsed p;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    korv_parse_args(static_cast<int>(argv.size()), argv.data(), p.o);
    p.err = testing::internal::GetCapturedStderr();
    p.out = testing::internal::GetCapturedStdout();
    return p;
}

TEST(Control, CommandLineIsWalkedInOrder) {
    KorvOptions o = parse({"-port", "2121", "-test", "-config", "/tmp/k.ini", "-stop", "-debug"}).o;
    EXPECT_EQ(o.port, 2121);
    EXPECT_EQ(o.nodetach, 1);
    EXPECT_EQ(o.config, "/tmp/k.ini");
    EXPECT_EQ(o.stopit, 1);
    EXPECT_EQ(o.debug, 1);
    EXPECT_EQ(o.leave, 0);

    // -version does its work and leaves: what follows is never read.
    o = parse({"-version", "-port", "99"}).o;
    EXPECT_EQ(o.leave, 1);
    EXPECT_EQ(o.port, 21);

    std::string long_host(150, 'h');
    o = parse({"-smtp", long_host, "-monitor", "77"}).o;
    EXPECT_EQ(o.mon_smtp.size(), static_cast<size_t>(kMonFieldMax));
    EXPECT_EQ(o.mon_pid, 77);
}

// Asking for help is a success on standard output; a wrong line is a failure
// on standard error, and neither lets the server start.
TEST(Control, HelpAndWrongLinesLeaveAtOnce) {
    const struct {
        std::vector<std::string> args;
        int status;
        bool on_stderr;
        const char* first;  // the first line printed
    } cases[] = {
        {{"-help"}, 0, false, "Usage: korvane [options]"},
        {{"--help", "-bogus"}, 0, false, "Usage: korvane [options]"},
        {{"-test", "-h"}, 0, false, "Usage: korvane [options]"},
        {{"-test", "-bogus", "-help"}, 2, true, "korvane: unknown option -bogus"},
        {{"-thread", "4"}, 2, true, "korvane: unknown option -thread"},
        {{"-test", "-config"}, 2, true, "korvane: option -config needs a value"},
        {{"-port"}, 2, true, "korvane: option -port needs a value"},
    };
    for (const auto& k : cases) {
        Parsed p = parse(k.args);
        const std::string& shown = k.on_stderr ? p.err : p.out;
        EXPECT_EQ(p.o.leave, 1) << k.first;
        EXPECT_EQ(p.o.status, k.status) << k.first;
        EXPECT_EQ(shown.substr(0, shown.find('\n')), k.first);
        EXPECT_TRUE((k.on_stderr ? p.out : p.err).empty()) << k.first;
        // Every option the walk knows is in the text.
        for (const char* opt : {"-config FILE", "-test ", "-stop", "-port N", "-version", "-monitor PID", "-debug",
                                "-nothreads", "-smtp", "-manager", "-ip_to_scan", "-install", "-uninstall",
                                "-password", "-addsvc", "-restart", "--help"})
            EXPECT_NE(shown.find(opt), std::string::npos) << opt;
    }
}

TEST(Control, LogFilesMoveIntoTheLogHome) {
    struct Case {
        const char* log_home;
        const char* file;
        const char* want;
    } cases[] = {
        {"", "/srv/k/korvane.log", "/srv/k/korvane.log"},
        {"/var/log/k", "/srv/k/korvane.log", "/var/log/k/korvane.log"},
        {"/var/log/k/", "/srv/k/korvane.log", "/var/log/k/korvane.log"},
        {"C:\\logs", "d:\\srv\\korvane.log", "C:\\logs\\korvane.log"},
        {"/var/log/k", "plain.log", "/var/log/k/plain.log"},
    };
    for (const Case& c : cases) {
        korv_set_log_home(c.log_home);
        std::string out;
        get_log_file_path(out, c.file);
        EXPECT_EQ(out, c.want) << c.log_home << " " << c.file;
    }
    korv_set_log_home("");
}

TEST(Control, TailCopyStartsOnALine) {
    auto dir = std::filesystem::temp_directory_path() / "korv-control-test";
    std::filesystem::create_directories(dir);
    std::string in = (dir / "in.log").string(), out = (dir / "out.log").string();
    {
        std::ofstream f(in);
        for (int i = 0; i < 1000; ++i) f << "line number " << i << "\n";
    }
    std::ofstream(out) << "stale\n";
    ASSERT_EQ(lib_tail_file(in.c_str(), out.c_str(), 100, 0), 1);
    std::stringstream got;
    got << std::ifstream(out).rdbuf();
    std::string text = got.str();
    EXPECT_EQ(text.compare(0, 12, "line number "), 0) << text;
    EXPECT_EQ(text.substr(text.size() - 16), "line number 999\n");
    EXPECT_LE(text.size(), 100u);
    EXPECT_EQ(lib_tail_file((dir / "missing").c_str(), out.c_str(), 100, 0), 0);
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace korv
