// The command line and the file helpers of process control.
#include "server/control.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace korv {
namespace {

KorvOptions parse(std::vector<std::string> args) {
    args.insert(args.begin(), "korvane");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    KorvOptions o;
    testing::internal::CaptureStdout();
    korv_parse_args(static_cast<int>(argv.size()), argv.data(), o);
    testing::internal::GetCapturedStdout();
    return o;
}

TEST(Control, CommandLineIsWalkedInOrder) {
    KorvOptions o = parse({"-port", "2121", "-bogus", "-test", "-config", "/tmp/k.ini", "-stop", "-debug"});
    EXPECT_EQ(o.port, 2121);
    EXPECT_EQ(o.nodetach, 1);
    EXPECT_EQ(o.config, "/tmp/k.ini");
    EXPECT_EQ(o.stopit, 1);
    EXPECT_EQ(o.debug, 1);
    EXPECT_EQ(o.leave, 0);  // an unknown option is skipped, the server still starts

    // -version does its work and leaves: what follows is never read.
    o = parse({"-version", "-port", "99"});
    EXPECT_EQ(o.leave, 1);
    EXPECT_EQ(o.port, 21);

    std::string long_host(150, 'h');
    o = parse({"-smtp", long_host, "-monitor", "77"});
    EXPECT_EQ(o.mon_smtp.size(), static_cast<size_t>(kMonFieldMax));
    EXPECT_EQ(o.mon_pid, 77);
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
