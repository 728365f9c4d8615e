// The login engine: account words and quota numbers, module answers read into
// tokens, the lower-case retries, the cache of good answers, the table of
// authentication setups, and system logins and identity switches (as root).
#include "server/auth/user.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <crypt.h>

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "server/auth/auth_setups.h"
#include "server/auth/user_cache.h"
#include "server/auth/user_system.h"
#include "server/settings/ini.h"

namespace korv {
namespace {

TEST(UserWords, AccountStatusAndQuotaNumbers) {
  struct Status {
    const char* word;
    int want;
  } statuses[] = {{"ok", 1},   {"GOOD", 1},      {"Suspended", 2}, {"cancelled", 3},
                  {"Closed", 4}, {"bad", 5},     {"banned", 5},    {"PayDue", 6},
                  {"due", 6},  {"payus", 7},     {"3", 3},         {"7", 7},
                  {"0", 1},    {"9", 1},         {"frozen", 1},    {"", 1}};
  for (const Status& s : statuses) EXPECT_EQ(determine_account_status(s.word), s.want) << s.word;
  EXPECT_STREQ(accountstatus_messages[6], " Payment is due for this account, please pay asap.");
  struct Num {
    const char* text;
    long long want;
  } nums[] = {{"12", 12},          {"2gb", 2000000000LL}, {"3Gig", 3000000000LL},
              {"5g", 5000000000LL}, {"7MB", 7000000LL},    {"7m", 7000000LL},
              {"9k", 9000},        {"9x", 9},             {"", 0},
              {"20000000000", 20000000000LL},
              {"99999999999999999999g", 0x7fffffffffffffffLL}};
  for (const Num& n : nums) EXPECT_EQ(mynice_int64bit_atoi(n.text), n.want) << n.text;
}

// A stand-in module: known users and their answers; every question recorded.
struct StandIn {
  struct Account {
    std::string pass;
    std::string fields;
  };
  std::map<std::string, Account> users;
  std::vector<std::string> asked;  // "domain|user|pass"
};
StandIn* g_module = nullptr;

int stand_in_check(const char* domain, const char* user, const char* pass, std::string& result) {
  g_module->asked.push_back(strfmt("%s|%s|%s", domain, user, pass ? pass : "(null)"));
  auto it = g_module->users.find(user);
  if (it == g_module->users.end() || (pass != nullptr && it->second.pass != pass)) {
    result = strfmt("-ERR %s bad login\r\n", user);
    return 0;
  }
  result = strfmt("+OK %s ok %s\r\nstray", user, it->second.fields.c_str());
  return 1;
}

class UserLogin : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    char tmpl[] = "/tmp/user_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    emsg_open((dir_ + "/korvane.log").c_str());
    load("");
    g_module = &module_;
    user_set_check_fn(stand_in_check);
    MULTI_AUTH_SCENARIO row0;
    row0.authentication_command = "/opt/mod";
    multi_auth_set({row0}, 11);
    user_set_strip("");
    user_cache_clear();
    module_.users["bob"] = {"secret", "groups=\"Staff\" ftphome=\"/srv/bob\""};
  }
  void TearDown() override {
    user_set_check_fn(nullptr);
    g_module = nullptr;
    user_shutdown();
    ini_free_all();
    emsg_open("");
    if (system(("rm -rf '" + dir_ + "'").c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }
  void load(const std::string& globals) {
    ini_free_all();
    std::string path = dir_ + "/k.ini";
    std::ofstream(path) << "global_settings\n" << globals << "vdomain address=\"\" name=\"d\"\n";
    ASSERT_EQ(ini_read("korvane", path.c_str()), 1);
  }
  int login(const char* domain, const char* user, const char* pass) {
    UtokenPtr u;
    std::string result;
    int ok = user_login_generic(domain, user, pass, u, result, "10.0.0.1");
    last_ = std::move(u);
    last_result_ = result;
    return ok;
  }
  std::string dir_;
  StandIn module_;
  UtokenPtr last_;
  std::string last_result_;
};

TEST_F(UserLogin, ModuleAnswerFillsTheToken) {
  UtokenPtr u;
  std::string line =
      "+OK bob@d ok groups=\"Staff, Web\tftp\" ftpuid=\"1001\" ftpgid=\"50\" ftpquota=\"2gb\" "
      "dailyquota=\"5M\" ftpfromip=\"10.*\" tohost=\"h1\" ftphome=\"/srv/bob\" "
      "accountstatus=\"Suspended\"";
  ASSERT_EQ(load_result_into_token(u, "Bob", line), 1);
  EXPECT_EQ(u->user, "Bob");
  EXPECT_EQ(u->home, "/home/Bob");
  EXPECT_EQ(u->ftphome, "/srv/bob");
  EXPECT_EQ(u->uid, 1001);
  EXPECT_EQ(u->gid, 50);
  EXPECT_EQ(u->quota, 2000000000LL);
  EXPECT_EQ(u->dailyquota, 5000000LL);
  EXPECT_EQ(u->from_ip, "10.*");
  EXPECT_EQ(u->tohost, "h1");
  EXPECT_EQ(u->accountstatus, 2);
  EXPECT_EQ(word_count(u->usergroups.get()), 3);
  EXPECT_TRUE(word_find(u->usergroups.get(), "staff") && word_find(u->usergroups.get(), "web"));
  EXPECT_EQ(user_has_group_membership(u.get(), "ftp"), 1);
  EXPECT_EQ(user_has_group_membership(u.get(), "w*,!web"), 0);  // the last item that matches decides
  UtokenPtr bare;
  std::string plain = "+OK amy ok";
  load_result_into_token(bare, "amy", plain);
  EXPECT_EQ(bare->accountstatus, 1);
  EXPECT_EQ(bare->ftphome, "");
  // No ids from the module: the unprivileged account's, never root's.
  EXPECT_EQ(bare->uid, user_anonymous_token()->uid);
  EXPECT_EQ(bare->gid, user_anonymous_token()->gid);
  EXPECT_NE(bare->uid, 0);
  EXPECT_EQ(bare->usergroups, nullptr);
}

TEST_F(UserLogin, CapitalsAreRetriedInLowerCaseNameFirst) {
  struct Case {
    const char* user;
    const char* pass;
    int ok;
    std::vector<std::string> asked;
  } cases[] = {
      {"Bob", "Secret", 1, {"d|Bob|Secret", "d|bob|Secret", "d|bob|secret"}},
      {"BOB", "secret", 1, {"d|BOB|secret", "d|bob|secret"}},
      {"bob", "wrong", 0, {"d|bob|wrong"}},
      {"Eve", "X", 0, {"d|Eve|X", "d|eve|X", "d|eve|x"}},
      {"bob", nullptr, 1, {"d|bob|(null)"}},  // no password: only who the user is
  };
  for (const Case& c : cases) {
    user_cache_clear();
    module_.asked.clear();
    EXPECT_EQ(login("D", c.user, c.pass), c.ok) << c.user;
    EXPECT_EQ(module_.asked, c.asked) << c.user;
  }
  ASSERT_EQ(login("d", "Bob", "Secret"), 1);
  EXPECT_EQ(last_->user, "bob");  // the name as it passed
  EXPECT_EQ(last_->ftphome, "/srv/bob");
}

TEST_F(UserLogin, FailedLoginsCarryTheModuleLineAndATokenIsNeverReplaced) {
  EXPECT_EQ(login("d", "eve", "x"), 0);
  EXPECT_EQ(last_result_, "-ERR eve bad login");  // cut at the line end
  UtokenPtr held(new UTOKEN);
  std::string result;
  EXPECT_EQ(user_login_generic("d", "bob", "secret", held, result, "1.2.3.4"), 0);
  EXPECT_EQ(result, "Aborting user_login_generic utoken ptr not NULL");
}

TEST_F(UserLogin, CacheAnswersRepeatedLoginsUntilTheyAge) {
  ASSERT_EQ(login("d", "bob", "secret"), 1);
  ASSERT_EQ(login("d", "bob", "secret"), 1);
  EXPECT_EQ(module_.asked.size(), 1u);
  EXPECT_EQ(last_->ftphome, "/srv/bob");  // the token comes from the stored line
  // A wrong password goes to the module; its refusal leaves the entry.
  EXPECT_EQ(login("d", "bob", "nope"), 0);
  EXPECT_EQ(module_.asked.size(), 2u);
  ASSERT_EQ(login("d", "bob", "secret"), 1);
  EXPECT_EQ(module_.asked.size(), 2u);
  // Ages: 600 s still answers, 601 s does not; a question without password
  // matches any entry of the user.
  user_cache_clear();
  const time_t t0 = 7000000;
  user_cache_ok_add_at("d", "amy", "pw", "+OK amy ok", t0);
  UtokenPtr u;
  EXPECT_EQ(user_cache_ok_login_at("d", "amy", "pw", u, t0 + 600), 1);
  u.reset();
  EXPECT_EQ(user_cache_ok_login_at("d", "amy", nullptr, u, t0 + 600), 1);
  u.reset();
  EXPECT_EQ(user_cache_ok_login_at("d", "amy", "pw", u, t0 + 601), 0);
  EXPECT_EQ(user_cache_ok_login_at("e", "amy", "pw", u, t0), 0);
  EXPECT_EQ(user_cache_ok_login_at("d", "Amy", "pw", u, t0), 0);  // exact comparisons
}

TEST_F(UserLogin, OneEntryPerUserNameAcrossDomainsAndTheRingWraps) {
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(login("a", "bob", "secret"), 1);
    ASSERT_EQ(login("b", "bob", "secret"), 1);
  }
  EXPECT_EQ(module_.asked.size(), 6u);  // user@a and user@b evict each other
  EXPECT_EQ(user_cache_count(), 1);
  user_cache_clear();
  for (int i = 0; i < kUcacheSlots + 5; i++)
    user_cache_ok_add(strfmt("d%d", i).c_str(), strfmt("u%d", i).c_str(), "p", "+OK x y");
  EXPECT_EQ(user_cache_count(), kUcacheSlots);
  UtokenPtr u;
  EXPECT_EQ(user_cache_ok_login("d4", "u4", "p", u), 0);  // overwritten by the wrap
  EXPECT_EQ(user_cache_ok_login("d5", "u5", "p", u), 1);
}

TEST_F(UserLogin, NoCacheSettingSendsEveryLoginToTheModule) {
  load("authent_nocache true\n");
  login("d", "bob", "secret");
  login("d", "bob", "secret");
  EXPECT_EQ(module_.asked.size(), 2u);
  EXPECT_EQ(user_cache_count(), 0);
}

TEST_F(UserLogin, DomainIsAddedToTheNameUnlessStripped) {
  user_set_authent_domain(0, 1);
  user_set_strip("Main");
  login("main", "bob", "secret");
  login("other", "bob", "secret");
  login("", "bob", "secret");
  EXPECT_EQ(module_.asked, (std::vector<std::string>{"main|bob|secret", "other|bob@other|secret",
                                                     "|bob|secret"}));
  user_set_strip("");
  EXPECT_EQ(user_isauthdom("main"), 1);
  user_set_authent_domain(0, 0);
  EXPECT_EQ(user_isauthdom("other"), 0);
}

TEST_F(UserLogin, WhichDomainsLogInThroughAModule) {
  MULTI_AUTH_SCENARIO sys, mod;
  sys.use_system = 1;
  mod.domain_name = "mod";
  mod.authentication_command = "/opt/m";
  multi_auth_set({sys, mod}, 12);
  EXPECT_EQ(isspawn("mod"), 1);
  EXPECT_EQ(isspawn("MOD"), 0);  // exact names
  EXPECT_EQ(isspawn("other"), 0);
  EXPECT_EQ(use_system_auth_as_default(), 1);
  multi_auth_apply("", "/opt/omauth", "-file u", 1);
  EXPECT_EQ(isspawn("other"), 1);
  EXPECT_EQ(multi_auth_settings_copy()[0].authentication_command,
            "/opt/omauth -file u -path \"/opt\"");
  multi_auth_apply("new", "/x/auth", "", 0);
  multi_auth_apply("", "", "", 1);
  EXPECT_EQ(isspawn("new"), 1);
  EXPECT_EQ(isspawn("other"), 0);
}

TEST_F(UserLogin, ModuleCommandLines) {
  struct Case {
    const char* process;
    const char* opts;
    bool add_path;
    const char* want;
  } cases[] = {
      {"/usr/lib/korv/omauth", "-file u", true, "/usr/lib/korv/omauth -file u -path \"/usr/lib/korv\""},
      {"/usr/lib/korv/omauth", "", true, "/usr/lib/korv/omauth -path \"/usr/lib/korv\""},
      {"/usr/bin/other", "-x", false, "/usr/bin/other -x"},
      {"/a/m", "-path \"/b\" -q", true, "/a/m -path \"/b\" -q"},  // " -path " already there
      {"C:\\auth\\m.exe", "", true, "C:\\auth\\m.exe -path \"C:\\auth\""},
      {"omauth", "", true, "omauth"},
      {"", "-x", true, " -x"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(multi_auth_command(c.process, c.opts, c.add_path), c.want) << c.process;
}

TEST_F(UserLogin, TableIsBuiltFromTheSettings) {
  ini_free_all();
  std::ofstream(dir_ + "/k.ini") << "global_settings\n"
                                    "authent_process \"/opt/OMAUTH\"\nauthent_domain true\n"
                                    "vdomain address=\"\" name=\"a\"\n"
                                    "domain_authent_process \"/m/a\"\n"
                                    "domain_authent_cmdopts \"-v\"\n"
                                    "vdomain address=\"1.1.1.1\" name=\"b\"\n"
                                    "vdomain address=\"1.1.1.2\"\n"
                                    "domain_authent_process \"/m/c\"\n";
  ASSERT_EQ(ini_read("korvane", (dir_ + "/k.ini").c_str()), 1);
  int max = 0;
  std::vector<MULTI_AUTH_SCENARIO> rows = multi_auth_build(&max);
  EXPECT_EQ(max, 3 + 1 + kAuthSpareRows);
  ASSERT_EQ(rows.size(), 2u);  // b has no module, the third domain no name
  EXPECT_EQ(rows[0].authentication_command, "/opt/OMAUTH -path \"/opt\"");
  EXPECT_EQ(rows[0].domain_authentication, 1);
  EXPECT_EQ(rows[0].use_system, 0);
  EXPECT_EQ(rows[1].domain_name, "a");
  EXPECT_EQ(rows[1].authentication_command, "/m/a -v -path \"/m\"");
  emsg_flush();
  std::ifstream in(dir_ + "/korvane.log");
  std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(log.find("Domain 2 does not have a Domain name for domain authentication process."),
            std::string::npos);
}

TEST_F(UserLogin, BecomingAnUnknownUserChangesNothing) {
  UtokenPtr u(new UTOKEN);
  u->user = "bob";
  u->ftphome = "/srv/bob";
  std::string reason = "old";
  EXPECT_EQ(user_become(u, "no_such_user_korv", reason), 1);
  EXPECT_EQ(reason, "");
  EXPECT_EQ(u->user, "bob");
  EXPECT_EQ(u->ftphome, "/srv/bob");
  EXPECT_EQ(user_become(u, "root", reason), 1);
  EXPECT_EQ(u->user, "root");
  EXPECT_EQ(u->uid, 0);
  EXPECT_EQ(u->home, user_home_lookup("root"));
  EXPECT_EQ(u->ftphome, "");
  EXPECT_STREQ(user_home(nullptr), "/home/users");
}

// System logins need a throw-away account, so they run only as root.
class SystemLogin : public UserLogin {
 protected:
  void SetUp() override {
    UserLogin::SetUp();
    if (geteuid() != 0 || access("/usr/sbin/useradd", X_OK) != 0)
      GTEST_SKIP() << "system logins need root and useradd to make a throw-away account";
    name_ = strfmt("korvt%d", static_cast<int>(getpid()) % 100000);
    crypt_data cd{};
    const char* salt = crypt_gensalt_rn("$6$", 0, nullptr, 0, salt_, sizeof salt_);
    ASSERT_NE(salt, nullptr);
    std::string hash = crypt_rn("secret", salt, &cd, sizeof cd);
    std::string out = dir_ + "/useradd.out";
    std::string cmd = strfmt("/usr/sbin/useradd -M -d /tmp/%s -s /bin/sh -p '%s' %s >'%s' 2>&1",
                             name_.c_str(), hash.c_str(), name_.c_str(), out.c_str());
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd << ": " << std::ifstream(out).rdbuf();
    made_ = true;
    MULTI_AUTH_SCENARIO sys;
    sys.use_system = 1;
    multi_auth_set({sys}, 11);
  }
  void TearDown() override {
    if (made_ && system(strfmt("/usr/sbin/userdel %s", name_.c_str()).c_str()) != 0)
      ADD_FAILURE() << "could not remove the account " << name_;
    UserLogin::TearDown();
  }
  std::string name_;
  char salt_[CRYPT_GENSALT_OUTPUT_SIZE] = {};
  bool made_ = false;
};

TEST_F(SystemLogin, PasswordShellExpiryAndGroups) {
  const char* n = name_.c_str();
  ASSERT_EQ(login("d", n, "secret"), 1);
  EXPECT_EQ(last_->user, name_);
  EXPECT_EQ(last_->home, "/tmp/" + name_);
  EXPECT_EQ(last_->ftphome, "/tmp/" + name_);
  int uid = -1, gid = -1;
  std::string dir;
  ASSERT_EQ(user_getinfo(n, &uid, &gid, dir), 1);
  EXPECT_EQ(last_->uid, uid);
  EXPECT_TRUE(word_find(last_->usergroups.get(), n));  // useradd made its own group
  EXPECT_EQ(login("d", n, "SECRET"), 1);  // the lower-case retry
  EXPECT_EQ(login("d", n, "wrong"), 0);
  EXPECT_EQ(login("d", "no_such_user_korv", "secret"), 0);
  EXPECT_EQ(module_.asked.size(), 0u);  // the module is never asked
  ASSERT_EQ(system(strfmt("/usr/sbin/usermod -s /bin/korv_no_shell %s >/dev/null 2>&1", n).c_str()), 0);
  EXPECT_EQ(login("d", n, "secret"), 0);
  ASSERT_EQ(system(strfmt("/usr/sbin/usermod -s /bin/sh -e 1970-01-05 %s >/dev/null 2>&1", n).c_str()), 0);
  EXPECT_EQ(login("d", n, "secret"), 0);
  emsg_flush();
  std::ifstream in(dir_ + "/korvane.log");
  std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (const char* text : {"Password failed for user (", "Account doesn't exist (no_such_user_korv)",
                           "Shell not found in /etc/shells (/bin/korv_no_shell)",
                           "Account password expired ("})
    EXPECT_NE(log.find(text), std::string::npos) << text;
  EXPECT_EQ(log.find("secret"), std::string::npos);  // no password in the log
}

// The switch is the calling thread's alone: another session's thread stays
// root meanwhile, and the user's groups replace root's until the revert.
TEST_F(SystemLogin, ImpersonationChangesOnlyTheCallingThread) {
  UtokenPtr u;
  std::string reason;
  ASSERT_EQ(user_become(u, name_.c_str(), reason), 1);
  ASSERT_NE(u->uid, 0);
  ASSERT_EQ(user_impersonate(u.get()), 1);
  EXPECT_EQ(static_cast<int>(geteuid()), u->uid);
  EXPECT_EQ(static_cast<int>(getegid()), u->gid);
  gid_t groups[64];
  int n = getgroups(64, groups);
  ASSERT_GT(n, 0);
  EXPECT_NE(std::find(groups, groups + n, static_cast<gid_t>(u->gid)), groups + n);
  EXPECT_EQ(std::find(groups, groups + n, static_cast<gid_t>(0)), groups + n);  // root's group is gone
  EXPECT_EQ(user_revert(u.get()), 1);
  EXPECT_EQ(geteuid(), 0u);
  EXPECT_EQ(getegid(), 0u);
  EXPECT_EQ(user_impersonate(nullptr), 1);  // nothing to switch to
}

TEST_F(SystemLogin, ImpersonationLeavesOtherThreadsRoot) {
  UtokenPtr u;
  std::string reason;
  ASSERT_EQ(user_become(u, name_.c_str(), reason), 1);
  std::mutex m;
  std::condition_variable cv;
  int step = 0;
  uid_t seen = 1;
  std::thread other([&] {
    std::unique_lock<std::mutex> hold(m);
    cv.wait(hold, [&] { return step == 1; });
    seen = geteuid();
    step = 2;
    cv.notify_all();
  });
  ASSERT_EQ(user_impersonate(u.get()), 1);
  {
    std::unique_lock<std::mutex> hold(m);
    step = 1;
    cv.notify_all();
    cv.wait(hold, [&] { return step == 2; });
  }
  EXPECT_EQ(user_revert(u.get()), 1);
  other.join();
  EXPECT_EQ(seen, 0u);
}

// Without root there is nothing to switch: both calls succeed and change
// nothing. Run in a child that has given up root for good.
TEST(Identity, NothingToSwitchWithoutRoot) {
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (geteuid() == 0) {
      gid_t none = 65534;
      if (setgroups(1, &none) != 0 || setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)
        _exit(2);
    }
    const uid_t was = geteuid();
    UTOKEN other;
    other.user = "someone";
    other.uid = other.gid = 4321;
    if (user_impersonate(&other) != 1 || geteuid() != was) _exit(3);
    if (user_revert(&other) != 1 || geteuid() != was) _exit(4);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2 cannot drop root, 3 impersonate, 4 revert";
}

// A module user that names no system account gets the unprivileged ids and
// no supplementary groups, even when its name is a system account's that
// belongs to groups.
TEST(Identity, ModuleUserWithoutIdsGetsNoSystemGroups) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to switch identity";
  std::string member;
  setgrent();
  while (group* g = getgrent()) {
    if (g->gr_mem != nullptr && g->gr_mem[0] != nullptr) {
      member = g->gr_mem[0];
      break;
    }
  }
  endgrent();
  if (member.empty()) GTEST_SKIP() << "no account in the group database belongs to a group";
  UtokenPtr u;
  std::string line = "+OK " + member + " ok";
  ASSERT_EQ(load_result_into_token(u, member.c_str(), line), 1);
  ASSERT_EQ(user_impersonate(u.get()), 1);
  gid_t groups[64];
  int n = getgroups(64, groups);
  const uid_t euid = geteuid();
  EXPECT_EQ(user_revert(u.get()), 1);
  EXPECT_EQ(static_cast<int>(euid), user_anonymous_token()->uid);
  ASSERT_EQ(n, 1) << member;
  EXPECT_EQ(static_cast<int>(groups[0]), user_anonymous_token()->gid);
  EXPECT_EQ(geteuid(), 0u);
}

}  // namespace
}  // namespace korv
