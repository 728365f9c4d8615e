// Child processes for real: a missing program, a child speaking on its pipes, argument splitting
// without a shell, the spawn environment, closed descriptors, staged termination, later reaping.
#include "net/spawn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "tests/support/certs.h"

namespace korv {
namespace {

// Everything the child writes on its output until it closes it. (The timed read keeps its limit
// at end of file, so the helper watches for the close itself.)
std::string read_all_stdout(osspawn_info* p) {
    std::string out;
    char bf[4096];
    for (;;) {
        struct pollfd pf{p->std_output, POLLIN, 0};
        if (::poll(&pf, 1, 10000) <= 0) break;
        int n = osspawn_readpipe(p->std_output, bf, sizeof bf, nullptr);
        if (n <= 0) break;
        out.append(bf, static_cast<size_t>(n));
    }
    return out;
}

TEST(Spawn, MissingProgramStartsAndEndsWith99) {
    osspawn_info p;
    std::string reason;
    ASSERT_EQ(libspawn_create("/nonexistent/korvane-no-such-program arg", &reason, 1, &p), 1);
    EXPECT_EQ(reason.rfind("OSSpawn: fork succeeded, check process id (", 0), 0u) << reason;
    ASSERT_EQ(libspawn_is_process_finished(&p, 10.0, &reason), 1) << reason;
    EXPECT_EQ(p.exitcode, kSpawnExecFailed);
    EXPECT_EQ(reason, "OSSpawn: Child pid=(" + std::to_string(p.pid) + ") exited normally with exitcode: 99.");
    EXPECT_EQ(p.use_pipes, 0);
    // Asked again, the answer stays and no signal goes to a pid that may belong to another.
    EXPECT_EQ(osspawn_is_process_finished(&p, nullptr), 1);
    EXPECT_EQ(libspawn_terminate(&p, 0.1, 0.1, nullptr), 1);

    osspawn_info none;
    EXPECT_EQ(osspawn_create(" \t ", &reason, 1, &none), 0);
    EXPECT_EQ(reason, "no executable name");
}

TEST(Spawn, ChildEchoesLinesThroughPipes) {
    osspawn_info p;
    std::string reason;
    ASSERT_EQ(libspawn_create("/bin/cat", &reason, 1, &p), 1) << reason;
    EXPECT_EQ(osspawn_is_process_finished(&p, &reason), 0);
    EXPECT_EQ(reason, "OSSpawn: Child pid=(" + std::to_string(p.pid) + ") still running.");
    char bf[100];
    EXPECT_EQ(libspawn_read_timed_stdout(&p, bf, sizeof bf, 0.02, nullptr), 0);  // nothing yet
    for (const std::string line : {"+OK first\n", "second line\n"}) {
        ASSERT_EQ(libspawn_write_stdin(&p, line.data(), static_cast<int>(line.size()), &reason),
                  static_cast<int>(line.size()));
        std::string got;
        while (got.size() < line.size()) {
            int n = libspawn_read_timed_stdout(&p, bf, sizeof bf, 5.0, nullptr);
            ASSERT_GT(n, 0);
            got.append(bf, static_cast<size_t>(n));
        }
        EXPECT_EQ(got, line);
    }
    // End of input ends the child normally and closes its pipes.
    ASSERT_EQ(osspawn_close_pipe(p.std_input), 1);
    p.std_input = 0;
    ASSERT_EQ(libspawn_is_process_finished(&p, 10.0, &reason), 1) << reason;
    EXPECT_EQ(p.exitcode, 0);
    EXPECT_EQ(p.std_output, 0);
}

TEST(Spawn, ArgumentsSplitAtBlanksQuotesKept) {
    osspawn_info p;
    ASSERT_EQ(libspawn_create("/usr/bin/printf [%s]\\n x   \"a b\"", nullptr, 1, &p), 1);
    EXPECT_EQ(read_all_stdout(&p), "[x]\n[\"a]\n[b\"]\n");
    EXPECT_EQ(libspawn_is_process_finished(&p, 10.0, nullptr), 1);
}

// The program's own words split; every argument after it stays whole.
TEST(Spawn, ArgumentsGivenWholeStayWhole) {
    osspawn_info p;
    ASSERT_EQ(libspawn_create_args("/usr/bin/printf [%s]\\n", {"my file.txt", "\"q\" 'x'", "", "a\tb"}, nullptr, 1, &p),
              1);
    EXPECT_EQ(read_all_stdout(&p), "[my file.txt]\n[\"q\" 'x']\n[]\n[a\tb]\n");
    EXPECT_EQ(libspawn_is_process_finished(&p, 10.0, nullptr), 1);
    std::string reason;
    EXPECT_EQ(libspawn_create_args("  ", {"x"}, &reason, 0, &p), 0);
    EXPECT_EQ(reason, "no executable name");
}

TEST(Spawn, EnvironmentAndDescriptorsOfTheChild) {
    // A descriptor of the server without close-on-exec must still not reach the child.
    int leak = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leak, 0);
    int high = ::fcntl(leak, F_DUPFD, 200);
    ::close(leak);
    ASSERT_GE(high, 200);
    osspawn_info p;
    ASSERT_EQ(libspawn_create("/bin/ls /proc/self/fd", nullptr, 1, &p), 1);
    std::string fds = read_all_stdout(&p);
    EXPECT_EQ(fds.find(std::to_string(high)), std::string::npos) << fds;
    EXPECT_EQ(fds.rfind("0\n1\n2\n", 0), 0u) << fds;
    libspawn_is_process_finished(&p, 10.0, nullptr);
    ::close(high);

    ASSERT_EQ(ex_env_count(), 0);
    ASSERT_EQ(ex_init_addenv("KORV_A", "1"), 1);
    ASSERT_EQ(ex_init_addenv("KORV_B", "two words"), 1);
    osspawn_info e;
    ASSERT_EQ(libspawn_create("/usr/bin/env", nullptr, 1, &e), 1);
    EXPECT_EQ(read_all_stdout(&e), "KORV_A=1\nKORV_B=two words\n");
    libspawn_is_process_finished(&e, 10.0, nullptr);
    ex_init_env(nullptr);
    EXPECT_EQ(ex_env_count(), 0);
    for (int i = 0; i < kSpawnEnvMax; ++i) ex_init_addenv("K", "v");
    EXPECT_EQ(ex_env_count(), kSpawnEnvMax - 1);  // one slot stays for the terminator
    ex_init_env(nullptr);
}

// A child that another waitpid collected first (the server reaps stray
// children with waitpid(-1)) has ended: it is not waited for, and its pid,
// free for reuse, is never signalled.
TEST(Spawn, ChildReapedElsewhereCountsAsEnded) {
    osspawn_info p;
    ASSERT_EQ(libspawn_create("/bin/sh -c read", nullptr, 1, &p), 1);
    ::close(p.std_input);  // the child's read ends: it exits
    p.std_input = 0;
    int status = 0;
    ASSERT_EQ(::waitpid(p.pid, &status, 0), p.pid);
    std::string reason;
    EXPECT_EQ(libspawn_is_process_finished(&p, 10.0, &reason), 1) << reason;
    EXPECT_EQ(p.reaped, 1);
    EXPECT_EQ(p.use_pipes, 0);
    reason.clear();
    EXPECT_EQ(libspawn_terminate(&p, 5.0, 5.0, &reason), 1);
    EXPECT_EQ(reason, "");  // no signal was tried
}

// A child handed over is reaped by its pid once it ends, and a child that is
// not handed over is left to its starter.
TEST(Spawn, HandedOverChildIsReapedByItsPid) {
    osspawn_info mine, kept;
    ASSERT_EQ(libspawn_create("/bin/sleep 0.2", nullptr, 0, &mine), 1);
    ASSERT_EQ(libspawn_create("/bin/true", nullptr, 0, &kept), 1);
    EXPECT_EQ(libspawn_reap_later(&mine), 1);
    EXPECT_EQ(mine.reaped, 1);
    int left = 1;
    for (int i = 0; i < 1000 && left > 0; i++) {
        left = libspawn_reap_pending();
        if (left > 0) ::usleep(10000);
    }
    EXPECT_EQ(left, 0);
    int status = 0;
    EXPECT_EQ(::waitpid(mine.pid, &status, WNOHANG), -1);  // already collected
    EXPECT_EQ(::waitpid(kept.pid, &status, 0), kept.pid);  // still ours to collect
}

TEST(Spawn, TerminationEscalatesPastAnIgnoredSigterm) {
    test::TempDir dir("korv-spawn");
    std::string script = dir.file("stubborn.sh");
    {
        std::ofstream f(script);
        f << "#!/bin/sh\ntrap '' TERM\necho ready\nexec 1>&-\nwhile :; do sleep 1; done\n";
    }
    ::chmod(script.c_str(), 0755);
    osspawn_info p;
    ASSERT_EQ(libspawn_create(script.c_str(), nullptr, 1, &p), 1);
    char bf[16];
    ASSERT_EQ(libspawn_read_timed_stdout(&p, bf, sizeof bf, 10.0, nullptr), 6);  // the trap is set
    ASSERT_EQ(::kill(p.pid, SIGTERM), 0);
    EXPECT_EQ(libspawn_is_process_finished(&p, 0.2, nullptr), 0);
    std::string reason;
    EXPECT_EQ(libspawn_terminate(&p, 0.05, 5.0, &reason), 1) << reason;
    EXPECT_EQ(p.exitcode, kSpawnAbnormalExit);

    // A writer that has gone leaves nothing to read: 0 once the wait has passed.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[1]);
    EXPECT_EQ(libspawn_read_timed(fds[0], bf, sizeof bf, 0.02, nullptr), 0);
    ::close(fds[0]);
}

TEST(Spawn, ChildrenReapedLaterAndEndedAll) {
    single_list later;
    for (int i = 0; i < 2; ++i) {
        osspawn_info p;
        ASSERT_EQ(libspawn_create("/bin/true", nullptr, 0, &p), 1);
        ASSERT_EQ(libspawn_autowaitforend(&later, &p, 0, nullptr), 1);
    }
    struct Seen {
        int calls = 0;
        int codes = 0;
    } seen;
    int left = 2;
    for (int round = 0; round < 500 && left > 0; ++round) {
        left = libspawn_waiting(
            &later,
            [](int, int code, const char*, void* ptr) {
                auto* s = static_cast<Seen*>(ptr);
                ++s->calls;
                s->codes += code;
            },
            &seen);
        if (left > 0) ::poll(nullptr, 0, 10);
    }
    EXPECT_EQ(left, 0);
    EXPECT_EQ(seen.calls, 2);
    EXPECT_EQ(seen.codes, 0);

    single_list sleepers;
    for (int i = 0; i < 2; ++i) {
        osspawn_info p;
        ASSERT_EQ(libspawn_create("/bin/sleep 30", nullptr, 0, &p), 1);
        libspawn_autowaitforend(&sleepers, &p, 0, nullptr);
    }
    EXPECT_EQ(libspawn_waiting(&sleepers, nullptr, nullptr), 2);
    EXPECT_EQ(libspawn_terminate_all(&sleepers), 1);
    EXPECT_TRUE(sleepers.items.empty());
}

}  // namespace
}  // namespace korv
