// Recent password failures: the ninth failure locks a name for 300 seconds,
// counts survive until asked about, and the oldest insertion leaves first.
#include "server/auth/passfail.h"

#include <gtest/gtest.h>

#include <string>

#include "common/mutex.h"

namespace korv {
namespace {

constexpr time_t T0 = 5000000;

class PassFail : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    pass_fail_free();
  }
  void TearDown() override { pass_fail_free(); }
};

TEST_F(PassFail, NineRecentFailuresLockTheName) {
  for (int i = 0; i < 8; i++) pass_fail_add_at("10.1.1.1", T0 + i);
  EXPECT_EQ(pass_fail_recent_at("10.1.1.1", T0 + 10), 0);
  pass_fail_add_at("10.1.1.1", T0 + 20);
  EXPECT_EQ(pass_fail_recent_at("10.1.1.1", T0 + 20 + 299), 1);
  EXPECT_EQ(pass_fail_recent_at("10.1.1.2", T0 + 21), 0);
  for (int i = 0; i < 20; i++) pass_fail_add_at("127.0.0.1", T0);
  EXPECT_EQ(pass_fail_recent_at("127.0.0.1", T0), 0);  // never limited
}

// An attempt is counted before it is made: nine attempts in flight fill the
// window, and only one that did not fail gives its place back.
TEST_F(PassFail, TriesCountBeforeTheirOutcome) {
  for (int i = 0; i < 9; i++) EXPECT_EQ(pass_fail_try_at("10.2.2.2", T0), 0) << i;
  EXPECT_EQ(pass_fail_try_at("10.2.2.2", T0), 1);
  EXPECT_EQ(pass_fail_undo("10.2.2.2"), 1);
  EXPECT_EQ(pass_fail_try_at("10.2.2.2", T0 + 1), 0);
  EXPECT_EQ(pass_fail_try_at("10.2.2.2", T0 + 1), 1);
  EXPECT_EQ(pass_fail_try_at("10.2.2.2", T0 + 301), 0);  // a new window
  EXPECT_EQ(pass_fail_try_at("10.2.2.3", T0), 0);
}

TEST_F(PassFail, CountsResetOnlyWhenAskedAfterTheWindow) {
  for (int i = 0; i < 9; i++) pass_fail_add_at("a", T0);
  // Without a question in between, a failure 300 s later counts from 9.
  pass_fail_add_at("a", T0 + 400);
  EXPECT_EQ(pass_fail_recent_at("a", T0 + 401), 1);
  // Asked 300 s after the last failure, the count returns to 0 for good.
  EXPECT_EQ(pass_fail_recent_at("a", T0 + 700), 0);
  pass_fail_add_at("a", T0 + 701);
  EXPECT_EQ(pass_fail_recent_at("a", T0 + 702), 0);
}

TEST_F(PassFail, TheFortyFirstNamePushesOutTheOldestInsertion) {
  for (int i = 0; i < 9; i++) pass_fail_add_at("n0", T0);  // oldest, but busy
  for (int i = 1; i < kPassFailSlots; i++) pass_fail_add_at(("n" + std::to_string(i)).c_str(), T0);
  for (int i = 0; i < 9; i++) pass_fail_add_at("n1", T0);
  EXPECT_EQ(pass_fail_recent_at("n0", T0 + 1), 1);
  pass_fail_add_at("n40", T0 + 1);
  EXPECT_EQ(pass_fail_recent_at("n0", T0 + 2), 0);  // gone, whatever its count
  EXPECT_EQ(pass_fail_recent_at("n1", T0 + 2), 1);
}

}  // namespace
}  // namespace korv
