// Users' homes: the hashing table, the mailbox hash, ftphome remapping and its
// precedence over the class home, and the starting virtual directory.
#include "server/vfs/home.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "common/emsg.h"
#include "common/mutex.h"

namespace korv {
namespace {

TEST(Home, HashingTable) {
  struct Case {
    const char* user;
    const char* pattern;
    const char* base;
    int lower;
    const char* want;
  } cases[] = {
      {"sample", "", "", 0, "/home/sample"},
      {"sample", "fo", "", 0, "/home/sa/sample"},
      {"sample", "", "/loc", 0, "/loc/sample"},
      {"Sample", "", "/Users", 1, "/Users/sample"},  // the base keeps its case
      {"Sample", "f/fo", "/usr/lcl", 1, "/usr/lcl/s/sa/sample"},
      {"Sample", "f/fo", "/usr/lcl", 0, "/usr/lcl/S/Sa/Sample"},
      {"BlackAdder", "f/o", "/home", 1, "/home/b/l/blackadder"},
      {"BlackAdder", "f/o/", "/home", 1, "/home/b/l/blackadder"},
      {"a", "fo", "", 0, "/home/a/a"},           // "o" adds nothing past the end of the name
      {"user", "xyz", "", 0, "/home/user"},      // no pattern letters: only the slash step
      {"bob", "ooo", "/h", 0, "/h/bob/bob"},     // "o" without "f" starts at the first letter
      {"bob", "fooo", "/h//", 0, "/h/bob/bob"},  // doubled slashes squeezed
      {"sample", "$velmar$", "/mail", 0, "/mail/hg/fe/sample"},
      {"Sample", "$velmar$", "/mail", 0, "/mail/hg/fe/sample"},  // the mailbox hash lower-cases
  };
  for (const Case& c : cases) {
    std::string out;
    make_link_user_ftphome(out, c.user, c.pattern, c.base, c.lower, nullptr);
    EXPECT_EQ(out, c.want) << c.user << " " << c.pattern << " " << c.base;
  }
  std::string out;
  make_link_user_ftphome(out, "bob", "fo", "/h", 0, "/given");
  EXPECT_EQ(out, "/given");
  EXPECT_EQ(get_hashing_string(out, "a/fxo"), "/fo");
  EXPECT_EQ(get_hashing_string(out, std::string(200, 'o').c_str()).size(), size_t{kHashPatternMax});
}

TEST(Home, MailboxPath) {
  std::string out = "x";
  EXPECT_EQ(sm_userpath(out, "/mail", "Sam#ple", "inbox"), 1);
  EXPECT_EQ(out, "/mail/hg/fe/sam,23ple/inbox");  // '#' stripped from the hash, encoded in the name
  EXPECT_EQ(sm_userpath(out, "/mail", nullptr, "."), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(sm_userpath(out, std::string(300, 'm').c_str(), "bob", "."), 1);
  EXPECT_EQ(out.size(), size_t{kMailboxPathMax});
}

class HomeIni : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    char tmpl[] = "/tmp/home_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    emsg_open((dir_ + "/korvane.log").c_str());
  }
  void TearDown() override {
    ini_free_all();
    emsg_open("");
    if (system(("rm -rf '" + dir_ + "'").c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }
  void load(const std::string& cls) {
    std::string path = dir_ + "/k.ini";
    std::ofstream(path) << "global_settings\n"
                           "vdomain address=\"\" name=\"d\"\n"
                        << cls;
    ASSERT_EQ(ini_read("korvane", path.c_str()), 1);
    ASSERT_EQ(ini_setdomain(&l_, ""), 1);
    std::string reason;
    ASSERT_EQ(ini_setclass(&l_, "Bob", reason), 1) << reason;
  }
  std::string dir_;
  Link l_;
};

TEST_F(HomeIni, ModuleHomeBypassesClassHomeAndIsRemapped) {
  load("class type=real\nuser_home /Users\nuser_home_hashing fo\nforce_lower_home true\n"
       "dir alias=\"/\" path=\"~\"\n"
       "ftphome_map find=\"/srv/ftp\" map=\"/data\"\nftphome_map find=\"/srv\" map=\"/other\"\n");
  std::string out;
  EXPECT_EQ(link_user_ftphome(&l_, "Bob", out), "/Users/bo/bob");
  l_.utoken.reset(new UTOKEN);
  EXPECT_EQ(link_user_ftphome(&l_, "Bob", out), "/Users/bo/bob");  // a token without ftphome
  struct Case {
    const char* ftphome;
    const char* want;
  } cases[] = {
      {"/srv/ftp/Bob", "/data/Bob"},  // the first match in file order wins
      {"/srv/x", "/other/x"},
      {"/SRV/x", "/SRV/x"},  // case-sensitive
      {"/elsewhere/Bob", "/elsewhere/Bob"},
  };
  for (const Case& c : cases) {
    l_.utoken->ftphome = c.ftphome;
    EXPECT_EQ(link_user_ftphome(&l_, "Bob", out), c.want);
  }
}

TEST_F(HomeIni, StartingDirectoryComesFromTheFirstDirRule) {
  load("class type=real\nuser_home /u\n"
       "dir alias=\"/~/$username\" path=\"/real/~\"\ndir alias=\"/pub\" path=\"/srv/pub\"\n");
  l_.user = "Bob";
  std::string out;
  EXPECT_EQ(vdir_gethome_intobf(&l_, out), "//u/Bob/Bob");
  EXPECT_EQ(vdir_get_home_dir_path_rule(&l_, out), "/real/~");
}

TEST_F(HomeIni, NoDirRuleStartsAtRoot) {
  load("class type=real\n");
  std::string out;
  EXPECT_EQ(vdir_gethome_intobf(&l_, out), "/");
  EXPECT_EQ(vdir_get_home_dir_path_rule(&l_, out), "/");
}

}  // namespace
}  // namespace korv
