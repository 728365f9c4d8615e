// Numbered locks: recursion, timed takes, the status texts, and the crash
// reports (as death tests with a one-second limit).
#include "common/mutex.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "base/threads.h"
#include "common/emsg.h"

namespace korv {
namespace {

// A thread that takes a lock, holds it until told, then releases it.
class Holder {
public:
    explicit Holder(int lock) : lock_(lock), t_([this] { run(); }) { taken_.get_future().wait(); }
    ~Holder() {
        let_go();
        t_.join();
    }
    void let_go() {
        std::lock_guard lk(mx_);
        go_ = true;
        cv_.notify_all();
    }
    int id() const { return id_; }

private:
    void run() {
        mutex_wait(lock_);
        id_ = th_id();
        taken_.set_value();
        std::unique_lock lk(mx_);
        cv_.wait(lk, [&] { return go_; });
        lk.unlock();
        mutex_release(lock_);
    }
    int lock_;
    std::promise<void> taken_;
    std::mutex mx_;
    std::condition_variable cv_;
    bool go_ = false;
    int id_ = 0;
    std::thread t_;
};

class Locks : public ::testing::Test {
protected:
    void SetUp() override {
        mutex_init();
        mutex_set_timeout(180);
    }
};

int other_thread_try(int lock, int tout) {
    int got = -1;
    std::thread t([&] {
        got = mutex_wait_debug_timeout(lock, __FILE__, __LINE__, tout);
        if (got == 1) mutex_release(lock);
    });
    t.join();
    return got;
}

TEST_F(Locks, RecursiveTakesNeedAsManyReleases) {
    mutex_wait(MUTEX_LINK);
    mutex_wait(MUTEX_LINK);
    EXPECT_EQ(mutex_holder(MUTEX_LINK), th_id());
    EXPECT_EQ(mutex_depth(MUTEX_LINK), 2);
    mutex_release(MUTEX_LINK);
    EXPECT_EQ(mutex_holder(MUTEX_LINK), th_id());
    EXPECT_EQ(other_thread_try(MUTEX_LINK, 1), 0);
    mutex_release(MUTEX_LINK);
    EXPECT_EQ(mutex_holder(MUTEX_LINK), -1);
    EXPECT_EQ(mutex_depth(MUTEX_LINK), 0);
    // Had the inner take locked again, the underlying lock would still be held here.
    EXPECT_EQ(other_thread_try(MUTEX_LINK, 1), 1);
}

TEST_F(Locks, TimedTakeFailsWithoutCrashAndLeavesNoWaitRow) {
    {
        Holder h(MUTEX_DNS);
        EXPECT_EQ(mutex_wait_debug_timeout(MUTEX_DNS, __FILE__, __LINE__, 1), 0);
        EXPECT_EQ(mutex_holder(MUTEX_DNS), h.id());
        EXPECT_EQ(mutex_depth(MUTEX_DNS), 1);
        EXPECT_EQ(mutex_wait_fast_timeout(MUTEX_DNS, 1000, __FILE__, __LINE__), 0);  // the thin path too
    }
    EXPECT_EQ(mutex_wait_debug_timeout(MUTEX_DNS, __FILE__, __LINE__, 1), 1);
    mutex_release(MUTEX_DNS);
}

TEST_F(Locks, HoldReleasesOnScopeExitAndEarly) {
    {
        MutexHold hold(MUTEX_MIRROR);
        EXPECT_EQ(mutex_holder(MUTEX_MIRROR), th_id());
        hold.release();
        EXPECT_EQ(mutex_holder(MUTEX_MIRROR), -1);
    }
    {
        MutexHold outer(MUTEX_MIRROR);
        MutexHold inner(MUTEX_MIRROR);
        EXPECT_EQ(mutex_depth(MUTEX_MIRROR), 2);
    }
    EXPECT_EQ(mutex_depth(MUTEX_MIRROR), 0);
    EXPECT_EQ(other_thread_try(MUTEX_MIRROR, 1), 1);
}

TEST_F(Locks, StatusTextsNameThePlaces) {
    int outer_line = __LINE__ + 1;
    mutex_wait_debug(MUTEX_RECENT, "/src/server/outer.cpp", outer_line);
    mutex_wait_debug(MUTEX_RECENT, "c:\\src\\inner.cpp", 77);
    EXPECT_EQ(mutex_status2(MUTEX_RECENT), "2 outer.cpp:" + std::to_string(outer_line) + " inner.cpp:77");
    std::string name;
    int tot = -1, held = -1;
    EXPECT_EQ(mutex_status(MUTEX_RECENT, name, &tot, &held), 1);
    EXPECT_EQ(name, "RECENT");
    EXPECT_GE(held, 0);
    EXPECT_EQ(mutex_status(5, name, &tot, &held), 0);  // a reserved number
    mutex_info_set(MUTEX_RECENT, "loop1");
    EXPECT_EQ(mutex_info(MUTEX_RECENT), "loop1");
    std::string saved;
    EXPECT_EQ(mutex_save_info(MUTEX_RECENT, saved), 1);
    EXPECT_EQ(saved, "loop1");
    EXPECT_EQ(mutex_status3(MUTEX_RECENT).rfind(std::to_string(th_id()) + " ", 0), 0u);
    mutex_release(MUTEX_RECENT);
    mutex_release(MUTEX_RECENT);
    EXPECT_EQ(mutex_status2(MUTEX_RECENT).substr(0, 2), "0 ");
    EXPECT_EQ(mutex_set_timing("NOSUCH"), 0);
    EXPECT_EQ(mutex_set_timing("misc"), 1);
}

TEST_F(Locks, DumpCountsTakesBySourceLine) {
    auto dir = std::filesystem::temp_directory_path() / ("korv_mutex_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    for (int k = 0; k < 3; k++) {
        mutex_wait_debug(MUTEX_MISC, "dumpfile.cpp", 19123);
        mutex_release_debug(MUTEX_MISC, "dumpfile.cpp", 19124);
    }
    ASSERT_EQ(mutex_msg_dump(dir.c_str()), 1);
    std::ifstream freq(dir / "mutex.freq");
    std::stringstream text;
    text << freq.rdbuf();
    EXPECT_NE(text.str().find("       3 line 19123 File dumpfile.cpp\n"), std::string::npos) << text.str();
    EXPECT_TRUE(std::filesystem::exists(dir / "msg.dump"));
    std::filesystem::remove_all(dir);
}

// ---------------------------------------------------------------- crashes

// Runs inside the death test's child: the log goes to standard output, which
// is sent to standard error so that the expectation can read it.
void log_to_stderr() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    mutex_init();
}

TEST(LocksDeath, ReleaseWithoutTakeCrashes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            log_to_stderr();
            mutex_release(MUTEX_MISC);
        },
        "mutex SIGNAL, mutex released when not held\n.*MUTEX CRASHING IN NASTY WAY5");
}

TEST(LocksDeath, AssertionsCrash) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            log_to_stderr();
            mutex_assert_got(MUTEX_SSHA);
        },
        "MUTEX CRASHING IN NASTY WAY2 .*Assert got mutex 26 in .*mutex_test.cpp:[0-9]+ failed");
    EXPECT_DEATH(
        {
            log_to_stderr();
            mutex_wait(MUTEX_SSHA);
            mutex_wait(MUTEX_SSHA);
            mutex_assert_count_is_one(MUTEX_SSHA);
        },
        "mutex_assert_count_is_one 26 in .* failed. Count=2");
}

TEST(LocksDeath, LimitPassedWhileAnotherHoldsCrashesWithReport) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            log_to_stderr();
            mutex_set_timeout(1);
            mutex_info_set(MUTEX_LOOP, "loopwait1");
            Holder h(MUTEX_LOOP);
            mutex_wait(MUTEX_LOOP);
        },
        "NEWCODE: Cannot get mutex, fatal problem, dieing LOOP .*mutex_test.cpp:[0-9]+ waited=[0-9]+"
        ".*Mutex state is \\(loopwait1\\) 30"
        ".*Aborting due to mutex timeout \\(LOOP : .*mutex_test.cpp line [0-9]+\\)"
        ".*Mutex\\[LOOP\\] held by [0-9]+ [0-9]+sec .*mutex_test.cpp:[0-9]+ nref=1"
        ".*Thread \\[[0-9]+\\] .*mutex_test.cpp:[0-9]+ waiting for mutex \\(LOOP\\)");
}

// Two threads each hold one lock and wait for the other's.
void deadlock_pair() {
    std::promise<void> a_has, b_has;
    std::thread a([&] {
        mutex_wait(MUTEX_CLASS);
        a_has.set_value();
        b_has.get_future().wait();
        mutex_wait(MUTEX_MAIN);
    });
    std::thread b([&] {
        mutex_wait(MUTEX_MAIN);
        b_has.set_value();
        a_has.get_future().wait();
        mutex_wait(MUTEX_CLASS);
    });
    a.join();
    b.join();
}

TEST(LocksDeath, TwoThreadDeadlockIsNamed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            log_to_stderr();
            mutex_set_timeout(1);
            deadlock_pair();
        },
        "DEADLOCK, CODING ERROR, REPORT TO OMBRIX threads [0-9]+ and [0-9]+");
}

void crash_hook() {
    std::fputs("crash hook ran\n", stderr);
}

TEST(LocksDeath, CrashRunsTheHooks) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            log_to_stderr();
            mutex_set_crash_hook(crash_hook);
            mutex_set_startstop_hook([](const char* text) { std::fprintf(stderr, "startstop: %s", text); });
            mutex_set_main_status_hook([]() -> const char* { return "accepting"; });
            mutex_crash(MUTEX_MAIN, "here.cpp", 12);
        },
        "startstop: MUTEX CRASHING IN NASTY WAY5 here.cpp:12\n"
        ".*mutex: main status accepting - crash info here.cpp:12"
        ".*startstop: Aborting due to mutex timeout \\(MAIN : here.cpp line 12\\)"
        ".*crash hook ran");
}

}  // namespace
}  // namespace korv
