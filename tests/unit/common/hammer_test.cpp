// The anonymous login throttle: the limit within a period, the length of a
// block, a full table, the sweep of freed records and the address forms.
#include "common/hammer.h"

#include <gtest/gtest.h>

#include "common/mutex.h"

namespace korv {
namespace {

constexpr time_t T0 = 1000000;
const unsigned kIp = IP_int_from_string("10.0.0.9");

class Hammer : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    anon_hammering_reset();
  }
  void TearDown() override { anon_hammering_reset(); }
  int login(unsigned ip, time_t now) {
    MutexHold hold(MUTEX_M_ANON_HAMMER);
    return anon_login_from_IP_int_do_it(ip, now);
  }
};

TEST_F(Hammer, TheLoginAfterTheLimitIsRefusedAndTheBlockRunsFromTheFirstRefusal) {
  for (int i = 1; i <= 200; i++) ASSERT_EQ(login(kIp, T0 + i), 1) << i;
  const time_t first_refusal = T0 + 201;
  EXPECT_EQ(login(kIp, first_refusal), 0);
  EXPECT_EQ(login(IP_int_from_string("10.0.0.8"), first_refusal), 1);  // other addresses pass
  EXPECT_EQ(login(kIp, first_refusal + 100), 0);
  EXPECT_EQ(login(kIp, first_refusal + 240), 0);  // the last second of the block
  AnonLoginRecord r;
  ASSERT_TRUE(anon_hammering_record(kIp, &r));
  EXPECT_EQ(r.hammer_time, first_refusal);  // later refusals do not move it
  EXPECT_EQ(r.bans, 3);
  EXPECT_EQ(login(kIp, first_refusal + 241), 1);  // over: the address is forgotten
  EXPECT_EQ(login(kIp, first_refusal + 242), 1);
}

TEST_F(Hammer, ANewPeriodStartsTheCountAgain) {
  for (int i = 0; i < 150; i++) ASSERT_EQ(login(kIp, T0), 1);
  for (int i = 0; i < 150; i++) ASSERT_EQ(login(kIp, T0 + 601), 1) << i;  // 601 s on: a new period
  AnonLoginRecord r;
  ASSERT_TRUE(anon_hammering_record(kIp, &r));
  EXPECT_EQ(r.count, 150);
  EXPECT_EQ(r.first, T0 + 601);
}

TEST_F(Hammer, SettingsAndPublicEntryCountRefusals) {
  anon_hammering_set_default_values(60, 2, 10);
  EXPECT_EQ(anon_login_from_IP_str("192.168.1.1"), 1);
  EXPECT_EQ(anon_login_from_IP_str("192.168.1.1"), 1);
  EXPECT_EQ(anon_login_from_IP_str("192.168.1.1"), 0);
  EXPECT_EQ(anon_login_from_IP_str("192.168.1.1"), 0);
  EXPECT_EQ(anon_hammering_total(), 2);
}

TEST_F(Hammer, AFullTableAllowsWithoutCountingAndFreedRecordsAreSwept) {
  for (int i = 1; i <= kHammerRecords; i++) ASSERT_EQ(login(static_cast<unsigned>(i), T0), 1);
  ASSERT_EQ(anon_login_record_count(), kHammerRecords);
  anon_hammering_set_default_values(0, 1, 0);
  unsigned stranger = IP_int_from_string("172.16.0.1");
  for (int i = 0; i < 5; i++) EXPECT_EQ(login(stranger, T0), 1);  // never counted, never blocked
  EXPECT_FALSE(anon_hammering_record(stranger, nullptr));
  // The status pass frees every expired record; the sweep then compacts them.
  std::string info;
  hammering_information_at(info, T0 + 601);
  for (int i = 0; i < kHammerRecords; i++) login(stranger, T0 + 602);
  EXPECT_EQ(anon_login_record_count(), 1);
  EXPECT_TRUE(anon_hammering_record(stranger, nullptr));
}

TEST_F(Hammer, StatusListsBusyAddressesOnly) {
  for (int i = 0; i < 11; i++) login(kIp, T0);
  for (int i = 0; i < 10; i++) login(IP_int_from_string("10.0.0.7"), T0);
  std::string info;
  hammering_information_at(info, T0 + 5);
  EXPECT_NE(info.find("       10.0.0.9         11          0"), std::string::npos) << info;
  EXPECT_EQ(info.find("10.0.0.7"), std::string::npos) << info;
  EXPECT_NE(info.find("    (1 listed) (0 total bans, this uptime)\n"), std::string::npos) << info;
}

TEST(HammerAddress, DottedAndShortForms) {
  struct Case {
    const char* text;
    const char* want;
  } cases[] = {
      {"192.168.1.20", "192.168.1.20"}, {"10.1", "10.0.0.1"},   {"10.1.2", "10.0.1.2"},
      {"255.255.255.255", "255.255.255.255"}, {"7", "7.0.0.0"}, {"", "0.0.0.0"},
  };
  for (const Case& c : cases) EXPECT_EQ(int_to_IP(IP_int_from_string(c.text)), c.want) << c.text;
  EXPECT_EQ(IP_int_from_string("1.2.3.4"), 0x01020304u);
}

}  // namespace
}  // namespace korv
