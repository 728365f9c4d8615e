// The tree walk that rebuilds a quota count (what directories, files and
// links count, the depth cut) and the daily counts per user and per address.
// The verdict texts are checked end to end.
#include "server/vfs/quota.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/ftp/daily.h"

namespace korv {
namespace {

class Quota : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    char tmpl[] = "/tmp/quota_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    d_ = tmpl;
  }
  void TearDown() override {
    if (system(("rm -rf '" + d_ + "'").c_str()) != 0) ADD_FAILURE() << "could not remove " << d_;
  }
  void put(const std::string& name, size_t n) { std::ofstream(d_ + name) << std::string(n, 'x'); }
  long long dir_size(const std::string& name) {
    struct stat st {};
    return stat((d_ + name).c_str(), &st) == 0 ? st.st_size : -1;
  }
  long long walk(const std::string& sub = "") {
    int depth = 0;
    long long n = cmd_quota_deeper(&l_, d_ + sub, &depth);
    EXPECT_EQ(depth, 0);  // back where it started when nothing was cut
    return n;
  }
  std::string d_;
  Link l_;
};

TEST_F(Quota, WalkCountsFilesDirectoriesAndNotLinks) {
  put("/a", 1000);
  mkdir((d_ + "/sub").c_str(), 0755);
  put("/sub/b", 300);
  ASSERT_EQ(symlink((d_ + "/a").c_str(), (d_ + "/ln").c_str()), 0);
  ASSERT_EQ(symlink((d_ + "/sub").c_str(), (d_ + "/dirln").c_str()), 0);
  // Each level's "." and ".." count 4096; "sub" itself 4096 plus its size.
  long long inner = 2 * kQuotaDirBytes + 300;
  EXPECT_EQ(walk("/sub"), inner);
  EXPECT_EQ(walk(), 2 * kQuotaDirBytes + 1000 + kQuotaDirBytes + dir_size("/sub") + inner);
  EXPECT_EQ(walk("/missing"), 0);
}

TEST_F(Quota, WalkStopsAtTheDepthLimit) {
  // A chain of directories with a file at its foot: once the chain passes
  // the limit the file is no longer counted.
  std::string p;
  for (int i = 0; i < kQuotaDepthMax + 2; i++) {
    p += "/d";
    ASSERT_EQ(mkdir((d_ + p).c_str(), 0755), 0);
    put(p + "/f", 7);
  }
  int depth = 0;
  long long total = cmd_quota_deeper(&l_, d_, &depth);
  EXPECT_GT(depth, 0);  // the cut leaves the depth raised
  // Levels 1..90 are walked: each holds a file of 7 bytes, and every level
  // below the top is a directory entry of 4096 plus its own size.
  long long want = 0;
  std::string q;
  for (int level = 1; level < kQuotaDepthMax; level++) {
    q += "/d";
    want += 2 * kQuotaDirBytes + 7 * (level > 1) + kQuotaDirBytes + dir_size(q);
  }
  EXPECT_EQ(total, want);
}

TEST_F(Quota, DailyCountPerAddressTruncatesEachCall) {
  day_free();
  long long total = -1;
  day_add("10.0.0.1", 150, &total);
  day_add("10.0.0.1", 150, &total);
  EXPECT_EQ(total, 2);  // 1 + 1, not 300 / 100
  day_add("10.0.0.2", 0, &total);
  EXPECT_EQ(total, 0);
  // Addresses are kept cut to 20 characters, so these share a count.
  day_add("2001:db8:aaaa:bbbb:cccc::1", 1000, &total);
  day_add("2001:db8:aaaa:bbbb:cccc::2", 1000, &total);
  EXPECT_EQ(total, 20);
  day_free();
  day_add("10.0.0.1", 0, &total);
  EXPECT_EQ(total, 0);
}

TEST_F(Quota, DailyCountPerUserIsSweptAfterADay) {
  remove_user_daily_quota();
  EXPECT_EQ(get_user_daily_quota("amy"), 0);
  EXPECT_EQ(add_to_user_daily_quota("amy", 500), 500);
  EXPECT_EQ(add_to_user_daily_quota("amy", 25), 525);
  EXPECT_EQ(add_to_user_daily_quota("bob", 1), 1);
  EXPECT_EQ(get_user_daily_quota("amy"), 525);
  // Enough sweep steps to visit every bucket (each step passes up to 100
  // empty ones): younger than a day stays, a day old goes.
  const time_t now = time(nullptr);
  const int steps = kUserTableSize / kSweepSkipMax + 10;
  for (int i = 0; i < steps; i++) per_username_settings_idle(now + kUserDaySeconds - 5);
  EXPECT_EQ(get_user_daily_quota("amy"), 525);
  for (int i = 0; i < steps; i++) per_username_settings_idle(now + kUserDaySeconds + 5);
  EXPECT_EQ(get_user_daily_quota("amy"), 0);
  EXPECT_EQ(get_user_daily_quota("bob"), 0);
  remove_user_daily_quota();
}

}  // namespace
}  // namespace korv
