// Logins end to end against the real server: anonymous spellings and address
// checks, users of the bundled module omauth and its cache, account statuses,
// class, address and user limits, the alias banner, the new-user program, both
// throttles and loginfails, a system account, and no password in any log.
#include <crypt.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const std::string kOmauth = KORV_BINARY_DIR "/omauth";
const char* const kAnonOk = "331 Guest login ok, send your complete e-mail address as password.\r\n";

// The fixture's global settings with the module on the users file in the
// home, then `domains`.
std::string om_config(const std::string& domains, const std::string& global = "") {
  std::string c = KorvServer::basic_config("\tauthent_process \"" + kOmauth + "\"\n" +
                                           "\tauthent_cmdopts \"-file @HOME@/users\"\n" + global);
  return c.substr(0, c.find("vdomain")) + domains;
}

// One domain for every address: the anonymous class, a class for every real
// user with a home under home/, then `classes` (the last class that fits a
// user governs).
std::string one_domain(const std::string& classes = "", const std::string& domain_lines = "") {
  return "vdomain address=\"\" name=\"test\"\n" + domain_lines +
         "\tclass type=\"anonymous\" users=\"\" name=\"anonymous\" class_name=\"anonymous\"\n"
         "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n"
         "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
         "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n" +
         classes;
}

struct Server : KorvServer {
  explicit Server(const std::string& config) : KorvServer(config) { fs::create_directories(path("home")); }
  // Creates or changes a module user with a home; `fields` end its line in
  // the users file (accountstatus="paydue" ...).
  void user(const std::string& name, const char* pass, const std::string& fields = "") {
    users_[name] = name + " password=\"" + hash_of(pass) + "\" " + fields + "\n";
    std::ofstream out(path("users"));
    for (const auto& u : users_) out << u.second;
    fs::create_directories(path("home/" + name));
  }
  // A per-domain log of the domain "test".
  std::string domain_log(const char* name) const { return slurp(dir() + "/test/" + name); }
  std::map<std::string, std::string> users_;
};

// Connects (to `to`, from `from` when given) and reads the greeting.
void open(FtpClient& c, const Server& s, const std::string& to = "127.0.0.1", const std::string& from = "") {
  ASSERT_TRUE(c.connect(s.ftp_port(), to, 10000, from));
  std::string g = c.reply();
  ASSERT_EQ(g.compare(0, 4, "220 "), 0) << g;
}

// USER then PASS; the reply to PASS, or the reply to USER if it was not 331.
std::string login(FtpClient& c, const std::string& user, const std::string& pass) {
  std::string r = c.cmd("USER " + user);
  if (r.compare(0, 3, "331") != 0) return r;
  return c.cmd("PASS " + pass);
}

// Logins whose refusals are delayed run side by side: every USER is answered,
// then every PASS is sent before any reply is read.
struct Attempt {
  std::string user, pass, from;
  std::string want;
};
void run_together(const Server& s, const std::vector<Attempt>& attempts) {
  std::vector<std::unique_ptr<FtpClient>> cs;
  for (const Attempt& a : attempts) {
    cs.push_back(std::make_unique<FtpClient>());
    open(*cs.back(), s, "127.0.0.1", a.from);
    ASSERT_EQ(cs.back()->cmd("USER " + a.user).compare(0, 3, "331"), 0) << a.user;
  }
  for (size_t i = 0; i < cs.size(); i++) ASSERT_TRUE(cs[i]->send_line("PASS " + attempts[i].pass));
  for (size_t i = 0; i < cs.size(); i++) EXPECT_EQ(cs[i]->reply(), attempts[i].want) << attempts[i].user;
}

TEST(Login, AnonymousSpellingsAndAddressChecks) {
  const std::string anon = "\tclass type=\"anonymous\" users=\"\" name=\"a\" class_name=\"a\"\n"
                           "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n\t\tbanner \"Anonymous area\"\n";
  Server s(om_config("vdomain address=\"127.0.0.1\" name=\"plain\"\n" + anon +
                     "vdomain address=\"127.0.0.2\" name=\"warn\"\n\tpasswd_check \"Warn\"\n" + anon +
                     "vdomain address=\"127.0.0.3\" name=\"strict\"\n\tpasswd_check \"email\"\n" + anon));
  ASSERT_TRUE(s.start());
  const std::string in = "230-Anonymous area\r\n230 User ", bad = "530 Login incorrect - invalid email address\r\n";
  const struct {
    const char *to, *user, *pass;
    std::string want;
  } cases[] = {
      {"127.0.0.1", "ftp", "x", in + "anonymous logged in.\r\n"},
      {"127.0.0.1", "anonymous@", "", in + "anonymous logged in.\r\n"},
      {"127.0.0.1", "Guest", "x", in + "Guest logged in.\r\n"},  // keeps its spelling
      {"127.0.0.3", "ftp", "me@example.org", in + "anonymous logged in.\r\n"},
      {"127.0.0.3", "ftp", "nobody", bad},
      {"127.0.0.3", "ftp", "@example.org", bad},
      {"127.0.0.3", "ftp", "me@localhost", bad},
      {"127.0.0.2", "ftp", "me@example.org", in + "anonymous logged in.\r\n"},
      // "warn" takes a bad address past the class choice and every limit to
      // the home step, where no class means no alias.
      {"127.0.0.2", "ftp", "nobody", "530 No matching directory for alias (/) \r\n"},
  };
  for (const auto& k : cases) {
    FtpClient c;
    open(c, s, k.to);
    EXPECT_EQ(login(c, k.user, k.pass), k.want) << k.to << " " << k.user << " " << k.pass;
    EXPECT_EQ(c.cmd("PWD"), k.want[0] == '2' ? "257 \"/\" is current directory.\r\n" : "530 User and pass still required\r\n");
  }
}

TEST(Login, ModuleUserCacheAndNoPasswordInAnyLog) {
  Server s(om_config(one_domain()));
  s.user("alice", "Secret-42");
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  EXPECT_EQ(c.cmd("USER alice"), "331 Password required for alice.\r\n");
  EXPECT_EQ(c.cmd("PWD"), "530 User and pass still required\r\n");
  EXPECT_EQ(c.cmd("PASS Secret-42"), "230 User alice logged in.\r\n");
  EXPECT_EQ(c.cmd("NOOP"), "200 NOOP command successful.\r\n");
  EXPECT_EQ(login(c, "alice", "Wrong-17"), "530 Login incorrect alice -ERR alice bad login \r\n");
  EXPECT_EQ(c.cmd("PWD"), "530 User and pass still required\r\n");  // USER began a new login
  // With her password changed in the file, the old one still logs in: the
  // good answer comes from the cache, for that password only.
  s.user("alice", "Changed-9");
  EXPECT_EQ(login(c, "alice", "Secret-42"), "230 User alice logged in.\r\n");
  EXPECT_EQ(login(c, "alice", "Changed-9"), "230 User alice logged in.\r\n");
  EXPECT_EQ(login(c, "alice", "Secret-43"), "530 Login incorrect alice -ERR alice bad login \r\n");
  ASSERT_TRUE(s.stop());  // the logs are flushed on the way down
  EXPECT_NE(s.domain_log("login.log").find("User=alice IP=127.0.0.1\n"), std::string::npos);
  EXPECT_NE(s.domain_log("cmds.log").find("alice <-- PASS ******\n"), std::string::npos);
  for (const std::string& log : {s.domain_log("cmds.log"), s.domain_log("login.log"), s.log_text()}) {
    for (const char* pw : {"Secret-4", "Wrong-17", "Changed-9"}) EXPECT_EQ(log.find(pw), std::string::npos) << pw;
  }
}

// Account statuses, the class limits (each counts the session itself), TLS
// by class, the alias banner and the new-user program.
TEST(Login, WhatTheAccountAndTheClassDecide) {
  const std::string rd = "\t\tdir alias=\"/\" path=\"@HOME@/home\" read=\"true\"\n";
  Server s(om_config(one_domain(
      "\tclass type=\"real\" users=\"u1,u2\" name=\"few\" class_name=\"few\"\n" + rd + "\t\tlimit_users \"1\"\n" +
      "\tclass type=\"real\" users=\"p1\" name=\"once\" class_name=\"once\"\n" + rd + "\t\tlimit_peruser \"1\"\n" +
      "\tclass type=\"real\" users=\"i1\" name=\"perip\" class_name=\"perip\"\n" + rd + "\t\tlimit_con_perip \"1\"\n" +
      "\tclass type=\"real\" users=\"t1\" name=\"tls\" class_name=\"tls\"\n" + rd + "\t\tssl \"Require\"\n" +
      "\tclass type=\"real\" users=\"ban\" name=\"b\" class_name=\"b\"\n"
      "\t\tdir alias=\"/\" path=\"@HOME@/home/$username/\" read=\"true\" write=\"true\"\n"
      "\t\tdir alias=\"/in\" path=\"/i\" write=\"true\" nodel=\"true\" nolist=\"true\" nomkdir=\"true\"\n"
      "\t\tbanner \"Welcome\\n%virtual_paths%\"\n"
      "\tclass type=\"real\" users=\"nu\" name=\"new\" class_name=\"newcomers\"\n"
      "\t\tdir alias=\"/\" path=\"@HOME@/homes/$username\" read=\"true\"\n"
      "\t\tmkdir_auto \"true\"\n\t\tnew_user_program \"@HOME@/newuser.sh\"\n")));
  for (const char* u : {"u1", "u2", "p1", "i1", "t1", "ban", "erin"}) s.user(u, "pw");
  s.user("bob", "pw", "accountstatus=\"suspended\"");
  s.user("carol", "pw", "accountstatus=\"7\"");
  s.user("dave", "pw", "accountstatus=\"paydue\"");
  s.user("nu", "pw");
  fs::remove(s.path("home/nu"));
  std::ofstream(s.path("newuser.sh")) << "#!/bin/sh\necho \"$@\" > '" << s.dir() << "/newuser.args'\n";
  fs::permissions(s.path("newuser.sh"), fs::perms::owner_all);
  ASSERT_TRUE(s.start());
  FtpClient u1, p1, i1, c;
  open(u1, s);
  open(p1, s);
  open(i1, s, "127.0.0.1", "127.0.0.2");
  open(c, s);
  EXPECT_EQ(login(u1, "u1", "pw"), "230 User u1 logged in.\r\n");
  EXPECT_EQ(login(p1, "p1", "pw"), "230 User p1 logged in.\r\n");
  EXPECT_EQ(login(i1, "i1", "pw"), "230 User i1 logged in.\r\n");
  EXPECT_EQ(login(c, "t1", "pw"), "530 Login denied - SSL encryption is required for this class.\r\n");
  std::string home = s.path("home/ban");
  home.resize(std::max<size_t>(home.size(), 30), ' ');  // the real path's column
  EXPECT_EQ(login(c, "ban", "pw"), "230-Welcome\r\n230-  Alias                Real path                      Access\r\n"
                                   "230-  /                    " + home + " read+write\r\n"
                                   "230-  /in                  /i                             +write+nodel+nolist+nomkdir\r\n"
                                   "230 User ban logged in.\r\n");
  // Children start without a shell, each value one argument.
  EXPECT_EQ(login(c, "nu", "pw"), "230-Home directory ready for first time use.\r\n230 User nu logged in.\r\n");
  EXPECT_EQ(slurp(s.path("newuser.args")), "korvaneinfo nu /nu test newcomers " + s.path("homes/nu") + "\n");
  EXPECT_EQ(login(c, "nu", "pw"), "230 User nu logged in.\r\n");  // the home is there now
  const std::string denied = "530 Login denied - already 2/1 users connected sorry, setting ";
  const std::string due = " Payment is due for this account, please pay asap.";
  run_together(s, {
                      {"u2", "pw", "", denied + "LIMIT_USERS.\r\n"},
                      {"p1", "pw", "", denied + "LIMIT_PERUSER.\r\n"},
                      {"i1", "pw", "127.0.0.2", denied + "LIMIT_CON_PERIP.\r\n"},
                      {"i1", "pw", "127.0.0.3", "230 User i1 logged in.\r\n"},
                      {"bob", "pw", "", "530 Login Denied. Account suspended, please contact us.\r\n"},
                      {"carol", "pw", "", "530 Login Denied. Please pay us more money to continue the service.\r\n"},
                      {"dave", "pw", "", "230-" + due + "\r\n230 User dave logged in." + due + "\r\n"},
                  });
}

TEST(Login, ThrottlesAndLoginfails) {
  Server s(om_config(one_domain("", "\tloginfails \"1\"\n"),
                     "\tglobal_anon_hammer_active \"true\"\n\tglobal_anon_hammer_max \"2\"\n"));
  s.user("alice", "pw");
  ASSERT_TRUE(s.start());
  // Past loginfails the next PASS, even a good one, closes the connection.
  FtpClient c;
  open(c, s);
  for (int i = 0; i < 2; i++) ASSERT_EQ(login(c, "alice", "bad"), "530 Login incorrect alice -ERR alice bad login \r\n");
  EXPECT_EQ(login(c, "alice", "pw"), "530 Login incorrect 127.0.0.1\r\n");
  EXPECT_TRUE(c.wait_closed());
  // Nine failures from one address stop its tenth attempt before the password
  // is tried; other addresses go on.
  run_together(s, std::vector<Attempt>(9, {"alice", "bad", "127.0.0.2", "530 Login incorrect alice -ERR alice bad login \r\n"}));
  run_together(s, {{"alice", "pw", "127.0.0.2", "530 Login incorrect - too many attempts try later (127.0.0.2)\r\n"},
                   {"alice", "pw", "127.0.0.3", "230 User alice logged in.\r\n"}});
  // Two anonymous logins a period from one address; the third is turned away
  // at USER.
  std::vector<FtpClient> a(4);
  for (size_t i = 0; i < a.size(); i++) open(a[i], s, "127.0.0.1", i < 3 ? "127.0.0.4" : "127.0.0.5");
  for (size_t i = 0; i < a.size(); i++)
    EXPECT_EQ(a[i].cmd("USER ftp"), i == 2 ? "450 Server Access temporially unavailable, please try again later.\r\n" : kAnonOk) << i;
  EXPECT_EQ(a[2].cmd("PWD"), "530 User and pass still required\r\n");
}

// A system account, made for the test and removed after it.
TEST(Login, SystemAccountWhenRoot) {
  if (geteuid() != 0 || access("/usr/sbin/useradd", X_OK) != 0)
    GTEST_SKIP() << "system logins need root and useradd to make a throw-away account";
  std::string name = "korvl" + std::to_string(getpid() % 100000);
  std::string cmd =
      "/usr/sbin/useradd -M -d /tmp/" + name + " -s /bin/sh -p '" + hash_of("Sys-Secret") + "' " + name + " >/dev/null 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
  {
    Server s(KorvServer::basic_config() + "\tclass type=\"real\" users=\"" + name +
             "\" name=\"sys\" class_name=\"sys\"\n\t\tdir alias=\"/\" path=\"@HOME@/home\" read=\"true\"\n");
    EXPECT_TRUE(s.start());
    FtpClient c;
    open(c, s);
    EXPECT_EQ(login(c, name, "Sys-Secret"), "230 User " + name + " logged in.\r\n");
    EXPECT_EQ(login(c, name, "other"), "530 Login incorrect " + name + "  \r\n");
  }
  EXPECT_EQ(std::system(("/usr/sbin/userdel " + name).c_str()), 0) << "could not remove the account " << name;
}

}  // namespace
}  // namespace korv::test
