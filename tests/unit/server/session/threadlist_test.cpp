// The thread registry's rows and session counters, with stand-in thread
// handles (the registry only compares them).
#include "server/session/threadlist.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "common/mutex.h"

namespace korv {
namespace {

Thread* fake(uintptr_t n) { return reinterpret_cast<Thread*>(n << 4); }

THREADLIST* row_of(Thread* th) {
    for (THREADLIST* t = main_thread_list(); t != nullptr; t = t->next)
        if (t->th == th) return t;
    return nullptr;
}

class ThreadListTest : public ::testing::Test {
protected:
    void SetUp() override { mutex_init(); }
};

TEST_F(ThreadListTest, StoringAThreadAgainKeepsOneRowWithAFreshNumber) {
    int rows = main_thread_count();
    Thread* th = fake(101);
    long served = get_server_FTP_sessions_served();
    ASSERT_EQ(main_thread_store(th, THREAD_ID_STRING_FTP, nullptr, 10), 1);
    int first = row_of(th)->session;
    ASSERT_EQ(main_thread_store(th, THREAD_ID_STRING_FTP, nullptr, 20), 1);
    EXPECT_EQ(main_thread_count(), rows + 1);
    EXPECT_EQ(row_of(th)->used, 2);
    EXPECT_EQ(row_of(th)->session, first + 1);
    EXPECT_EQ(row_of(th)->start_time, 20);
    EXPECT_EQ(get_server_FTP_sessions_served(), served + 2);
}

TEST_F(ThreadListTest, NamesAcceptedDifferForNewAndReusedThreads) {
    struct Case {
        const char* name;
        int new_thread;
        int reused_thread;
    } cases[] = {
        {THREAD_ID_STRING_WEB_ADMIN, 1, 1},    {THREAD_ID_SELF_DIAGNOSTIC, 1, 1},
        {THREAD_ID_FTP_CHANNEL_HANDLER, 1, 1}, {THREAD_ID_MIRROR_PROCESS, 1, 0},
        {THREAD_ID_REPORT_PROCESS, 1, 0},      {THREAD_ID_IDLE_THREAD, 0, 0},
    };
    uintptr_t n = 200;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Thread* th = fake(n++);
        EXPECT_EQ(main_thread_store(th, c.name, nullptr, 1), c.new_thread);
        ASSERT_NE(row_of(th), nullptr);  // the row stays, refused or not
        EXPECT_EQ(main_thread_store(th, c.name, nullptr, 2), c.reused_thread);
        EXPECT_EQ(row_of(th)->threadname, c.name);  // renamed even when refused
    }
}

TEST_F(ThreadListTest, TurningAnonymousMovesTheSessionBetweenCounters) {
    Thread* th = fake(301);
    ASSERT_EQ(main_thread_store(th, THREAD_ID_STRING_FTP, nullptr, 1), 1);
    long ftp = get_server_FTP_sessions_served();
    long anon = get_server_AnonFTP_sessions_served();
    EXPECT_EQ(main_thread_set_name(th, THREAD_ID_STRING_ANONFTP, nullptr), 1);
    EXPECT_EQ(get_server_FTP_sessions_served(), ftp - 1);
    EXPECT_EQ(get_server_AnonFTP_sessions_served(), anon + 1);
    EXPECT_EQ(row_of(th)->threadname, THREAD_ID_STRING_ANONFTP);
    // The same name again changes nothing; an unknown thread is not found.
    EXPECT_EQ(main_thread_set_name(th, THREAD_ID_STRING_ANONFTP, nullptr), 1);
    EXPECT_EQ(get_server_AnonFTP_sessions_served(), anon + 1);
    EXPECT_EQ(main_thread_set_name(fake(399), THREAD_ID_STRING_FTP, nullptr), 0);
}

TEST_F(ThreadListTest, ProcessRowsAreAddedAndRemovedByPid) {
    int rows = main_thread_count();
    EXPECT_EQ(main_thread_store_MainProcess(424242, THREAD_ID_MAIN_PROCESS, nullptr, 5), 1);
    EXPECT_EQ(main_thread_count(), rows + 1);
    EXPECT_EQ(main_thread_remove_MainProcess(424242), 1);
    EXPECT_EQ(main_thread_count(), rows);
    EXPECT_EQ(main_thread_remove_MainProcess(424242), 0);
    EXPECT_EQ(main_thread_free_one(nullptr, 1), 0);
}

TEST_F(ThreadListTest, UserCountMovesByOne) {
    int n = total_logged_in_users();
    total_add_user();
    total_add_user();
    total_remove_user();
    EXPECT_EQ(total_logged_in_users(), n + 1);
    total_remove_user();
}

}  // namespace
}  // namespace korv
