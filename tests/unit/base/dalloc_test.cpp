#include "base/dalloc.h"

#include <gtest/gtest.h>

#include "base/fmt.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace korv {
namespace {

TEST(Dalloc, CountsBlocksAndBytes) {
    const DallocStats before = d_stats();
    void* a = d_malloc(100);
    char* b = static_cast<char*>(d_calloc(10, 3));
    char* c = d_strdup("hello");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(std::string(c), "hello");
    EXPECT_EQ(std::string(30, '\0'), std::string(b, 30));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % alignof(std::max_align_t), 0u);

    DallocStats mid = d_stats();
    EXPECT_EQ(mid.blocks - before.blocks, 3);
    EXPECT_EQ(mid.bytes - before.bytes, 100 + 30 + 6);
    EXPECT_EQ(mid.allocs - before.allocs, 3);
    EXPECT_GE(mid.peak_bytes, mid.bytes);

    d_free(a);
    d_free(b);
    d_free(c);
    d_free(nullptr);
    const DallocStats after = d_stats();
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(after.bytes, before.bytes);
    EXPECT_EQ(after.frees - before.frees, 3);
    EXPECT_EQ(d_strdup(nullptr), nullptr);
}

TEST(Dalloc, RefusesOverflowingSizes) {
    const DallocStats before = d_stats();
    EXPECT_EQ(d_calloc(SIZE_MAX / 2, 4), nullptr);
    EXPECT_EQ(d_malloc(SIZE_MAX - 4), nullptr);
    EXPECT_EQ(d_stats().blocks, before.blocks);
}

TEST(Dalloc, ReportNamesThePlace) {
    const int line = __LINE__ + 1;
    void* blocks[3] = {d_malloc(7000), d_malloc(7000), d_malloc(7000)};
    const std::string report = d_report(1000);
    const std::string want = strfmt("%s:%d 3 21000\n", __FILE__, line);
    EXPECT_NE(report.find(want), std::string::npos) << report;
    EXPECT_EQ(report.rfind("blocks ", 0), 0u);
    // Largest place first: ours is the only block this size in the test.
    const std::string first_line = d_report(1);
    EXPECT_NE(first_line.find(want), std::string::npos) << first_line;
    for (void* b : blocks) d_free(b);
    EXPECT_EQ(d_report(1000).find(want), std::string::npos);
}

TEST(Dalloc, CheckFindsOverwrittenGuards) {
    EXPECT_EQ(d_check(), 0);
    char* p = static_cast<char*>(d_malloc(16));
    char* q = static_cast<char*>(d_malloc(16));
    const char saved_tail = p[16];
    const char saved_head = q[-1];
    p[16] = 'X';  // one past the end
    q[-1] = 'Y';  // one before the start
    EXPECT_EQ(d_check(), 2);
    p[16] = saved_tail;
    q[-1] = saved_head;
    EXPECT_EQ(d_check(), 0);
    d_free(p);
    d_free(q);
}

TEST(DallocDeathTest, DoubleFreeAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            void* p = d_malloc(8);
            d_free(p);
            d_free(p);
        },
        "dalloc_test.cpp:[0-9]+: d_free of .* not a live block");
}

TEST(DallocDeathTest, OverrunCaughtAtFree) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            char* p = static_cast<char*>(d_malloc(8));
            memset(p, 'x', 9);
            d_free(p);
        },
        "guard overwritten \\(block of 8 bytes from .*dalloc_test.cpp:[0-9]+\\)");
}

TEST(Dalloc, ManyThreadsKeepCountsExact) {
    const DallocStats before = d_stats();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::vector<void*> held;
            for (int i = 0; i < 2000; ++i) {
                held.push_back(d_malloc(static_cast<size_t>(1 + (i + t) % 64)));
                if (i % 3 == 0) {
                    d_free(held.back());
                    held.pop_back();
                }
            }
            for (void* p : held) d_free(p);
        });
    }
    for (auto& th : threads) th.join();
    const DallocStats after = d_stats();
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(after.bytes, before.bytes);
    EXPECT_EQ(after.allocs - before.allocs, 8000);
    EXPECT_EQ(after.frees - before.frees, 8000);
}

}  // namespace
}  // namespace korv
