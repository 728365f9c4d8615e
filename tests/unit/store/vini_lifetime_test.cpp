// The settings store's lifetime: handles keep their tables across reloads
// and changes, changes are invisible until complete, replaced tables are
// freed once nothing holds them, and the change operations themselves.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "store/vini.h"
#include "tests/unit/store/vini_fixture.h"

namespace korv {
namespace {

using namespace testing_vini;

std::string file_with(const std::string& email, const std::string& home = "/h") {
  return "global_settings\nhome \"" + home + "\"\nvdomain name=\"d\"\nemail \"" + email +
         "\"\ndeny_msg \"" + email + "\"\nclass type=real\nlimit_users 3\n";
}

TEST_F(ViniTest, OldHandleKeepsItsValuesAcrossReloadAndChange) {
  load(file_with("one"));
  IniHandlePtr old = vini_handle();
  old->cls = old->tbl->classes[0].get();
  write_file(path_, file_with("two", "/h2"));
  ASSERT_EQ(vini_reload(), 1);
  IniHandlePtr mid = vini_handle();
  vini_lock_all();
  vini_set(0, -1, -1, "email \"three\"");
  vini_unlock_all();
  IniHandlePtr fresh = vini_handle();

  EXPECT_STREQ(vini_get(old.get(), EMAIL), "one");
  EXPECT_EQ(vini_geti(old.get(), LIMIT), 3);  // its class lives with its domain
  EXPECT_STREQ(vini_get(mid.get(), EMAIL), "two");
  EXPECT_STREQ(vini_get(fresh.get(), EMAIL), "three");
  EXPECT_STREQ(vini_get(nullptr, EMAIL), "three");
  EXPECT_STREQ(vini_get(old.get(), HOME), "/h2");  // globals: the current first domain
  EXPECT_EQ(old->tbl->todel, 1);

  // Replaced tables are parked for two minutes; without the wait, those held
  // only by the park go at once and those still held by a handle stay.
  EXPECT_GT(vini_parked_count(), 0);
  vini_free_idle(1);
  EXPECT_EQ(vini_parked_count(), 2);  // the tables of `old` and `mid`
  old.reset();
  mid.reset();
  vini_free_idle(1);
  EXPECT_EQ(vini_retired_count(), 0);
  EXPECT_EQ(vini_testdomains("after"), 1);
}

TEST_F(ViniTest, HundredAndFirstHolderGetsNoSlotAndStillWorks) {
  load(file_with("x"));
  std::vector<IniHandlePtr> hs;
  for (int i = 0; i < kViniMaxRef + 1; i++) hs.push_back(vini_handle());
  EXPECT_EQ(hs[kViniMaxRef - 1]->n, kViniMaxRef - 1);
  EXPECT_EQ(hs[kViniMaxRef]->n, -1);
  EXPECT_EQ(hs[0]->tbl->nref, kViniMaxRef + 1);
  EXPECT_STREQ(vini_get(hs[kViniMaxRef].get(), EMAIL), "x");
  hs[3].reset();  // frees a slot
  hs.push_back(vini_handle());
  EXPECT_EQ(hs.back()->n, 3);
  INITABLE* t = hs[0]->tbl;
  hs.clear();
  EXPECT_EQ(t->nref, 0);
}

TEST_F(ViniTest, ChangeIsInvisibleToOtherThreadsUntilUnlockAll) {
  load(file_with("before"));
  vini_lock_all();
  vini_set(0, -1, -1, "email \"after\"");
  EXPECT_STREQ(vini_get(nullptr, EMAIL), "after");  // the changer sees its change
  std::string seen;
  std::thread([&] { seen = vini_get(nullptr, EMAIL); }).join();
  EXPECT_EQ(seen, "before");
  vini_unlock_all();
  std::thread([&] { seen = vini_get(nullptr, EMAIL); }).join();
  EXPECT_EQ(seen, "after");
}

TEST_F(ViniTest, ChangeOperations) {
  load(std::string(kBasicFile));
  vini_lock_all();
  EXPECT_EQ(vini_set(5, -1, -1, "email x"), 0);
  EXPECT_EQ(vini_set(0, 4, -1, "email x"), 0);
  EXPECT_EQ(vini_blank_class(9), -1);
  EXPECT_EQ(logs(), (std::vector<std::string>{"vini_set domainid 5 doesn't exist\n",
                                              "vini_set classid 0:4 doesn't exist\n",
                                              "blank_class failed\n"}));
  clear_captured();
  INITABLE* cls = vini_class_at(0, 0);
  EXPECT_EQ(vini_set_oneof(cls, -1, "dir"), 0);  // fewer than two tokens
  EXPECT_EQ(vini_set_oneof(cls, -1, "Nope 1"), 0);
  EXPECT_EQ(logs(), std::vector<std::string>{"Invalid ini setting (nope)\n"});
  EXPECT_EQ(vini_set(0, 0, 1, "dir alias=/pub2 path=/p2"), 1);  // replaces occurrence 1
  EXPECT_EQ(vini_set(0, 0, -1, "dir alias=/new path=/n"), 1);   // appends
  EXPECT_EQ(vini_set(0, 0, -1, "limit_users 9"), 1);            // replaces the head
  EXPECT_EQ(vini_set(0, 0, 0, "limit_users 10"), 1);
  int d = vini_blank_domain();
  EXPECT_EQ(d, 1);
  EXPECT_EQ(vini_set(d, -1, -1, "vdomain address=1.1.1.1 name=other"), 1);
  EXPECT_EQ(vini_blank_class(d), 0);
  EXPECT_EQ(vini_set(d, 0, -1, "class type=anonymous"), 1);
  EXPECT_EQ(vini_write(), 1);
  vini_unlock_all();

  IniHandlePtr h = vini_handle();
  h->cls = vini_class_at(0, 0);
  std::vector<std::string> aliases;
  for (int ok = vini_find(h.get(), DIR); ok; ok = vini_next(h.get(), DIR))
    aliases.push_back(vini_cur_p(h.get(), DIR, "alias"));
  EXPECT_EQ(aliases, (std::vector<std::string>{"/", "/pub2", "/in", "/new"}));
  EXPECT_EQ(vini_geti(h.get(), LIMIT), 10);
  h.reset();
  EXPECT_EQ(logs(), std::vector<std::string>{"Invalid ini setting (nope)\n"});

  // What was written is what is in memory.
  load(read_file(path_));
  EXPECT_EQ(vini_domains_count(), 2);
  EXPECT_STREQ(vini_get_p(nullptr, VDOMAIN, "name"), "main");
  vini_lock_all();
  EXPECT_EQ(vini_clear(0, 0, DIR), 1);
  EXPECT_EQ(vini_clear(0, -1, DIR), 0);
  EXPECT_EQ(vini_dom_clear(0, EMAIL), 1);
  EXPECT_EQ(vini_class_delete(1, 0), 1);
  EXPECT_EQ(vini_class_delete(1, 0), 0);
  EXPECT_EQ(vini_domain_delete(1), 1);
  EXPECT_EQ(vini_domain_delete(1), 0);
  vini_unlock_all();
  EXPECT_EQ(vini_domains_count(), 1);
  EXPECT_STREQ(vini_get(nullptr, EMAIL), "");
  EXPECT_EQ(vini_class_at(0, 0)->table[DIR], nullptr);
  EXPECT_EQ(vini_testdomains("changed"), 1);
}

TEST_F(ViniTest, DeletedDomainHeldByAHandleLivesUntilReleased) {
  load(file_with("a") + "vdomain name=\"second\"\nemail \"b\"\nclass type=real\n");
  IniHandlePtr h = vini_handle();
  vini_lock_all();
  vini_switch_table(h.get(), vini_domain_at(1));
  h->cls = vini_class_at(1, 0);
  ASSERT_EQ(vini_domain_delete(1), 1);
  vini_unlock_all();
  EXPECT_STREQ(vini_get(h.get(), EMAIL), "b");
  EXPECT_STREQ(vini_get_p(h.get(), CLASS, "type"), "real");
  int retired = vini_retired_count();
  h.reset();
  EXPECT_EQ(vini_retired_count(), retired - 1);
}

using ViniDeathTest = ViniTest;

TEST_F(ViniDeathTest, MisuseIsFatal) {
  load(kBasicFile);
  vini_set_print(print_to_stderr);
  EXPECT_DEATH(vini_blank_domain(), "vini_blank_domain called outside vini_lock_all_x");
  EXPECT_DEATH(
      {
        vini_lock_all();
        vini_set(0, 0, 7, "dir alias=/x path=/y");
      },
      "VINI_ABORT");
  EXPECT_DEATH(
      {
        IniHandlePtr h = vini_handle();
        vini_free_ref_real(h->tbl, h->n, &h, "here", 1);
      },
      "vini_free_ref_real bad pointer");
}

// Many sessions read through handles while another thread saves and reloads:
// each handle sees one generation from start to end, and every value read
// through the first domain is whole.
TEST_F(ViniTest, ReadersThroughHandlesWhileSavingAndReloading) {
  load(file_with("gen0"));
  constexpr int kReaders = 4;
  constexpr int kRounds = 40;
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::atomic<long> reads{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; r++) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        IniHandlePtr h = vini_handle();
        std::string first = vini_get(h.get(), EMAIL);
        for (int i = 0; i < 50; i++) {
          if (first != vini_get(h.get(), EMAIL) || first != vini_get(h.get(), DENY_MSG)) bad++;
          std::string g = vini_get(nullptr, EMAIL);
          if (g.rfind("gen", 0) != 0) bad++;
          std::string home = vini_get(h.get(), HOME);
          if (home.rfind("/h", 0) != 0) bad++;
          reads++;
        }
      }
    });
  }
  for (int k = 1; k <= kRounds; k++) {
    std::string gen = "gen" + std::to_string(k);
    if (k % 2 == 0) {
      vini_lock_all();
      vini_set(0, -1, -1, ("email \"" + gen + "\"").c_str());
      vini_set(0, -1, -1, ("deny_msg \"" + gen + "\"").c_str());
      vini_set(0, -1, -1, ("home \"/h" + gen + "\"").c_str());
      ASSERT_EQ(vini_write(), 1);
      vini_unlock_all();
    } else {
      write_file(path_, file_with(gen, "/h" + gen));
      ASSERT_EQ(vini_reload(), 1);
    }
  }
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_GT(reads.load(), 0);
  EXPECT_STREQ(vini_get(nullptr, EMAIL), ("gen" + std::to_string(kRounds)).c_str());
  vini_free_idle(1);
  EXPECT_EQ(vini_retired_count(), 0);
}

}  // namespace
}  // namespace korv
