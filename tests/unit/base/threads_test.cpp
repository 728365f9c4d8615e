// The reuse pool: which thread runs a job, when a thread ends, the ending of
// the whole pool; and the remembered timed mutex.
#include "base/threads.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace korv {
namespace {

// Waits, within a generous bound, for a state that another thread brings about.
template <class Pred>
bool eventually(Pred pred) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A gate that jobs wait at until the test opens it.
struct Gate {
    std::mutex mx;
    std::condition_variable cv;
    bool open = false;
    void pass() {
        std::unique_lock lk(mx);
        cv.wait(lk, [&] { return open; });
    }
    void release() {
        std::lock_guard lk(mx);
        open = true;
        cv.notify_all();
    }
};

// What a job saw, and what it answers: 1 keeps its thread, 0 ends it.
struct Job {
    std::atomic<int> ran_on{0};
    std::atomic<bool> done{false};
    int result = 1;
    Gate* gate = nullptr;
};

int run_job(void* p) {
    auto* j = static_cast<Job*>(p);
    j->ran_on = th_id();
    if (j->gate != nullptr) j->gate->pass();
    j->done = true;
    return j->result;
}

class Pool : public ::testing::Test {
protected:
    void SetUp() override { th_init_threads(); }
    void TearDown() override {
        th_kill_all_threads_exit();
        EXPECT_TRUE(eventually([] { return th_count_now() == 0; }));
        for (Thread* t : handles_) th_free(t);
        th_init_threads();
    }
    // Gives the job to the pool and keeps the handle for freeing at the end.
    Thread* give(Job& j) {
        Thread* t = nullptr;
        EXPECT_EQ(th_new_reuse_th(run_job, &j, &t), 1);
        EXPECT_NE(t, nullptr);
        handles_.insert(t);
        return t;
    }
    std::set<Thread*> handles_;
};

TEST_F(Pool, FinishedThreadRunsTheNextJob) {
    Job first;
    Thread* t1 = give(first);
    ASSERT_TRUE(eventually([] { return th_idle_now() == 1; }));
    Job second;
    Thread* t2 = give(second);
    ASSERT_TRUE(eventually([&] { return second.done.load(); }));
    EXPECT_EQ(second.ran_on.load(), first.ran_on.load());
    EXPECT_EQ(t1, t2);
    EXPECT_EQ(th_count_now(), 1);
    EXPECT_NE(first.ran_on.load(), th_id());
}

TEST_F(Pool, JobReturningZeroEndsItsThread) {
    Job j;
    j.result = 0;
    Thread* t = give(j);
    ASSERT_TRUE(eventually([] { return th_count_now() == 0; }));
    EXPECT_EQ(th_idle_now(), 0);
    EXPECT_TRUE(eventually([&] { return th_kill(t, 0) == ESRCH; }));
}

TEST_F(Pool, BusyIdleThreadMeansANewThreadForTheSecondJob) {
    Job warm;
    give(warm);
    ASSERT_TRUE(eventually([] { return th_idle_now() == 1; }));
    Gate gate;
    Job a, b;
    a.gate = b.gate = &gate;
    give(a);
    give(b);
    ASSERT_TRUE(eventually([&] { return a.ran_on != 0 && b.ran_on != 0; }));
    EXPECT_EQ(a.ran_on.load(), warm.ran_on.load());
    EXPECT_NE(b.ran_on.load(), a.ran_on.load());
    EXPECT_EQ(th_count_now(), 2);
    gate.release();
    EXPECT_TRUE(eventually([] { return th_idle_now() == 2; }));
}

// After a burst, idle threads end down to the floor and no further; what is
// left still takes jobs.
std::atomic<int> idle_ended{0};
void count_idle_end(Thread*) { idle_ended++; }

TEST_F(Pool, IdleThreadsEndDownToTheFloor) {
    th_set_pool_idle(100, 2);
    th_set_idle_end_hook(&count_idle_end);  // the handles stay ours to free
    Gate gate;
    std::vector<Job> burst(6);
    for (Job& j : burst) {
        j.gate = &gate;
        give(j);
    }
    ASSERT_TRUE(eventually([] { return th_count_now() == 6; }));
    gate.release();
    EXPECT_TRUE(eventually([] { return th_count_now() == 2 && th_idle_now() == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // several more idle periods
    EXPECT_EQ(th_count_now(), 2);
    Job later;
    give(later);
    ASSERT_TRUE(eventually([&] { return later.done.load(); }));
    EXPECT_EQ(th_count_now(), 2);
    EXPECT_EQ(idle_ended.load(), 4);
    th_set_pool_idle(kPoolIdleEndMs, kPoolIdleFloor);
    th_set_idle_end_hook(nullptr);
}

TEST_F(Pool, MostRecentlyIdleThreadGetsTheJob) {
    Gate ga, gb;
    Job a, b;
    a.gate = &ga;
    b.gate = &gb;
    give(a);
    give(b);
    ASSERT_TRUE(eventually([&] { return a.ran_on != 0 && b.ran_on != 0; }));
    ga.release();
    ASSERT_TRUE(eventually([] { return th_idle_now() == 1; }));
    gb.release();
    ASSERT_TRUE(eventually([] { return th_idle_now() == 2; }));
    for (int round = 0; round < 3; round++) {
        Job next;
        give(next);
        ASSERT_TRUE(eventually([&] { return next.done.load(); }));
        EXPECT_EQ(next.ran_on.load(), b.ran_on.load()) << "round " << round;
        ASSERT_TRUE(eventually([] { return th_idle_now() == 2; }));
    }
}

TEST_F(Pool, KillAllEndsIdleAndBusyThreads) {
    Job idle;
    give(idle);
    ASSERT_TRUE(eventually([] { return th_idle_now() == 1; }));
    Gate gate;
    Job busy;
    busy.gate = &gate;
    give(busy);
    Job busy2;
    busy2.gate = &gate;
    give(busy2);
    ASSERT_TRUE(eventually([&] { return busy.ran_on != 0 && busy2.ran_on != 0; }));
    EXPECT_EQ(th_count_now(), 2);
    EXPECT_EQ(th_kill_all_threads_exit(), 1);
    // The busy jobs still run; once they end their threads leave instead of idling.
    gate.release();
    EXPECT_TRUE(eventually([] { return th_count_now() == 0; }));
    EXPECT_EQ(th_idle_now(), 0);
}

TEST_F(Pool, KillAllWithoutThreadsAndRestart) {
    EXPECT_EQ(th_kill_all_threads_exit(), 1);
    EXPECT_EQ(th_count_now(), 0);
    Job none;
    EXPECT_EQ(th_orders_find(run_job, &none), 0);  // nobody waits
    th_init_threads();
    Job j;
    give(j);
    EXPECT_TRUE(eventually([&] { return j.done.load(); }));
    EXPECT_TRUE(eventually([] { return th_idle_now() == 1; }));
}

TEST_F(Pool, JobWithoutHandleStillRuns) {
    Job j;
    EXPECT_EQ(th_new_reuse(run_job, &j), 1);
    ASSERT_TRUE(eventually([] { return th_idle_now() == 1; }));
    Job k;
    k.result = 0;
    EXPECT_EQ(th_new_reuse(run_job, &k), 1);
    EXPECT_TRUE(eventually([] { return th_count_now() == 0; }));
    EXPECT_EQ(k.ran_on.load(), j.ran_on.load());
}

int exit_early(void* p) {
    static_cast<std::atomic<int>*>(p)->store(th_id());
    th_exit(0);
}

TEST(Threads, PlainThreadEndsByExitAndKillSeesIt) {
    std::atomic<int> id{0};
    ThreadPtr t(th_new(exit_early, &id));
    ASSERT_NE(t, nullptr);
    ASSERT_TRUE(eventually([&] { return id.load() != 0; }));
    EXPECT_NE(id.load(), th_id());
    EXPECT_TRUE(eventually([&] { return th_kill(t.get(), 0) == ESRCH; }));
    EXPECT_EQ(th_pid(), getpid());
}

TEST(ThreadMutex, OwnerReentersAndOthersWaitForTheLastRelease) {
    Mutex* m = th_mutex_new_remember("test", __FILE__, __LINE__);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(th_mutex_wait_remember(m, 0, __FILE__, __LINE__), 1);
    ASSERT_EQ(th_mutex_wait_remember(m, 0, __FILE__, __LINE__), 1);
    EXPECT_EQ(m->nref, 1);
    EXPECT_EQ(m->threadid.load(), th_id());

    auto try_other = [&](unsigned timeout) {
        int got = -1;
        std::thread other([&] {
            got = th_mutex_wait_remember(m, timeout, __FILE__, __LINE__);
            if (got == 1) th_mutex_release(m);
        });
        other.join();
        return got;
    };
    EXPECT_EQ(try_other(999), 0);  // under a second is a single try
    EXPECT_EQ(th_mutex_release(m), 1);
    EXPECT_EQ(try_other(0), 0);  // still held once
    EXPECT_EQ(th_mutex_release(m), 1);
    EXPECT_EQ(try_other(0), 1);
    EXPECT_EQ(th_mutex_release(m), 0);  // not held by us any more
    EXPECT_EQ(th_mutex_wait_remember(nullptr, 1000, __FILE__, __LINE__), 0);
    th_mutex_free(m);
}

TEST(ThreadMutex, TimedWaitGetsTheLockWhenReleased) {
    Mutex* m = th_mutex_new_remember("timed", __FILE__, __LINE__);
    ASSERT_EQ(th_mutex_wait_remember(m, 0, __FILE__, __LINE__), 1);
    std::atomic<bool> started{false};
    int got = -1;
    std::thread other([&] {
        started = true;
        got = th_mutex_wait_remember(m, 30000, "waiter.cpp", 7);
        if (got == 1) {
            EXPECT_STREQ(m->file.load(), "waiter.cpp");
            th_mutex_release(m);
        }
    });
    ASSERT_TRUE(eventually([&] { return started.load(); }));
    th_mutex_release(m);
    other.join();
    EXPECT_EQ(got, 1);
    th_mutex_free(m);
}

}  // namespace
}  // namespace korv
