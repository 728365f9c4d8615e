// Logins end to end against the real server: anonymous spellings and address
// checks, real users through the bundled module omauth, wrong passwords and
// the close after too many, account statuses, class, address and user limits,
// banners with the alias table, the login cache, both throttles, a failing
// module, the new-user program, a system login, and passwords kept out of
// every log.
#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/str.h"
#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const std::string kOmauth = KORV_BINARY_DIR "/omauth";
const char* const kAnonOk = "331 Guest login ok, send your complete e-mail address as password.\r\n";

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_script(const std::string& path, const std::string& body) {
  std::ofstream(path) << "#!/bin/sh\n" << body;
  ::chmod(path.c_str(), 0755);
}

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
  // Creates or sets a module user; `fields` go on the user's line of the
  // users file (accountstatus="paydue" ...).
  void user(const std::string& name, const std::string& pass, const std::string& fields = "") {
    std::string cmd = "printf '%s\\n' '" + pass + "' | '" + kOmauth + "' -passwd '" + path("users") + "' '" + name +
                      "' 2>/dev/null";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    fs::create_directories(path("home/" + name));
    if (fields.empty()) return;
    std::istringstream in(slurp(path("users")));
    std::string out;
    for (std::string line; std::getline(in, line);) {
      if (line.compare(0, name.size() + 1, name + " ") == 0) line += " " + fields;
      out += line + "\n";
    }
    std::ofstream(path("users")) << out;
  }
  // A per-domain log of the domain "test".
  std::string domain_log(const char* name) const { return slurp(dir() + "/test/" + name); }
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
  const std::string anon_class =
      "\tclass type=\"anonymous\" users=\"\" name=\"anonymous\" class_name=\"anonymous\"\n"
      "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n"
      "\t\tbanner \"Anonymous area\"\n";
  Server s(om_config("vdomain address=\"127.0.0.1\" name=\"plain\"\n" + anon_class +
                     "vdomain address=\"127.0.0.2\" name=\"warn\"\n\tpasswd_check \"Warn\"\n" + anon_class +
                     "vdomain address=\"127.0.0.3\" name=\"strict\"\n\tpasswd_check \"email\"\n" + anon_class));
  ASSERT_TRUE(s.start());
  const std::string banner = "230-Anonymous area\r\n230 User ";
  const struct {
    const char* to;
    const char* user;
    const char* pass;
    std::string want;
  } cases[] = {
      {"127.0.0.1", "ftp", "x", banner + "anonymous logged in.\r\n"},
      {"127.0.0.1", "anonymous@", "", banner + "anonymous logged in.\r\n"},
      {"127.0.0.1", "Guest", "x", banner + "Guest logged in.\r\n"},  // keeps its spelling
      {"127.0.0.3", "ftp", "me@example.org", banner + "anonymous logged in.\r\n"},
      {"127.0.0.3", "ftp", "nobody", "530 Login incorrect - invalid email address\r\n"},
      {"127.0.0.3", "ftp", "@example.org", "530 Login incorrect - invalid email address\r\n"},
      {"127.0.0.3", "ftp", "me@localhost", "530 Login incorrect - invalid email address\r\n"},
      {"127.0.0.2", "ftp", "me@example.org", banner + "anonymous logged in.\r\n"},
      // "warn" lets a bad address past the class choice and every limit, to
      // the home step; with no class there is no alias for the home.
      {"127.0.0.2", "ftp", "nobody", "530 No matching directory for alias (/) \r\n"},
  };
  for (const auto& k : cases) {
    FtpClient c;
    open(c, s, k.to);
    EXPECT_EQ(c.cmd(std::string("USER ") + k.user), kAnonOk);
    EXPECT_EQ(c.cmd(std::string("PASS ") + k.pass), k.want) << k.to << " " << k.user << " " << k.pass;
    EXPECT_EQ(c.cmd("NOOP"), k.want[0] == '2' ? "200 NOOP command successful.\r\n"
                                                : "530 User and pass still required\r\n");
  }
}

TEST(Login, ModuleUserCacheAndNoPasswordInAnyLog) {
  Server s(om_config(one_domain()));
  s.user("alice", "Secret-42");
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  EXPECT_EQ(c.cmd("USER alice"), "331 Password required for alice.\r\n");
  EXPECT_EQ(c.cmd("NOOP"), "530 User and pass still required\r\n");
  EXPECT_EQ(c.cmd("PASS Secret-42"), "230 User alice logged in.\r\n");
  EXPECT_EQ(c.cmd("NOOP"), "200 NOOP command successful.\r\n");
  // USER starts a new login at any time.
  EXPECT_EQ(login(c, "alice", "Wrong-17"), "530 Login incorrect alice -ERR alice bad login \r\n");
  EXPECT_EQ(c.cmd("NOOP"), "530 User and pass still required\r\n");

  // With her password changed in the users file, the old one still logs in:
  // the good answer comes from the cache, for that password only.
  s.user("alice", "Changed-9");
  FtpClient d;
  open(d, s);
  EXPECT_EQ(login(d, "alice", "Secret-42"), "230 User alice logged in.\r\n");
  EXPECT_EQ(login(d, "alice", "Changed-9"), "230 User alice logged in.\r\n");
  EXPECT_EQ(login(d, "alice", "Secret-43"), "530 Login incorrect alice -ERR alice bad login \r\n");

  ASSERT_TRUE(s.stop());  // the logs are flushed on the way down
  EXPECT_NE(s.domain_log("login.log").find("User=alice IP=127.0.0.1\n"), std::string::npos);
  EXPECT_NE(s.domain_log("cmds.log").find("alice <-- PASS ******\n"), std::string::npos);
  for (const char* pw : {"Secret-4", "Wrong-17"}) {
    EXPECT_EQ(s.domain_log("cmds.log").find(pw), std::string::npos) << pw;
    EXPECT_EQ(s.domain_log("login.log").find(pw), std::string::npos) << pw;
    EXPECT_EQ(s.log_text().find(pw), std::string::npos) << pw;
  }
}

TEST(Login, LoginfailsClosesTheConnection) {
  Server s(om_config(one_domain("", "\tloginfails \"1\"\n")));
  s.user("alice", "Secret-42");
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  for (int i = 0; i < 2; i++)
    EXPECT_EQ(login(c, "alice", "wrong"), "530 Login incorrect alice -ERR alice bad login \r\n") << i;
  EXPECT_EQ(login(c, "alice", "Secret-42"), "530 Login incorrect 127.0.0.1\r\n");  // even a good one
  EXPECT_TRUE(c.wait_closed());
}

TEST(Login, AccountStatuses) {
  Server s(om_config(one_domain()));
  s.user("bob", "pw-b", "accountstatus=\"suspended\"");
  s.user("carol", "pw-c", "accountstatus=\"7\"");
  s.user("dave", "pw-d", "accountstatus=\"paydue\"");
  s.user("erin", "pw-e", "accountstatus=\"ok\"");
  ASSERT_TRUE(s.start());
  const std::string due = " Payment is due for this account, please pay asap.";
  run_together(s, {
                      {"bob", "pw-b", "", "530 Login Denied. Account suspended, please contact us.\r\n"},
                      {"carol", "pw-c", "", "530 Login Denied. Please pay us more money to continue the service.\r\n"},
                      {"dave", "pw-d", "", "230-" + due + "\r\n230 User dave logged in." + due + "\r\n"},
                      {"erin", "pw-e", "", "230 User erin logged in.\r\n"},
                  });
}

TEST(Login, ClassAddressAndUserLimitsAndClassTls) {
  const std::string classes =
      "\tclass type=\"real\" users=\"u1,u2\" name=\"few\" class_name=\"few\"\n"
      "\t\tdir alias=\"/\" path=\"@HOME@/home\" read=\"true\"\n\t\tlimit_users \"1\"\n"
      "\tclass type=\"real\" users=\"p1\" name=\"once\" class_name=\"once\"\n"
      "\t\tdir alias=\"/\" path=\"@HOME@/home\" read=\"true\"\n\t\tlimit_peruser \"1\"\n"
      "\tclass type=\"real\" users=\"i1,i2\" name=\"perip\" class_name=\"perip\"\n"
      "\t\tdir alias=\"/\" path=\"@HOME@/home\" read=\"true\"\n\t\tlimit_con_perip \"1\"\n"
      "\tclass type=\"real\" users=\"t1\" name=\"tls\" class_name=\"tls\"\n"
      "\t\tdir alias=\"/\" path=\"@HOME@/home\" read=\"true\"\n\t\tssl \"Require\"\n";
  Server s(om_config("vdomain address=\"\" name=\"test\"\n" + classes));  // no class for anyone else
  for (const char* u : {"u1", "u2", "p1", "i1", "i2", "t1", "zed"}) s.user(u, "pw");
  ASSERT_TRUE(s.start());
  // The first of each is admitted; the limit counts the session itself.
  FtpClient u1, p1, i1;
  open(u1, s);
  open(p1, s);
  open(i1, s, "127.0.0.1", "127.0.0.2");
  EXPECT_EQ(login(u1, "u1", "pw"), "230 User u1 logged in.\r\n");
  EXPECT_EQ(login(p1, "p1", "pw"), "230 User p1 logged in.\r\n");
  EXPECT_EQ(login(i1, "i1", "pw"), "230 User i1 logged in.\r\n");
  FtpClient t1;
  open(t1, s);
  EXPECT_EQ(login(t1, "t1", "pw"), "530 Login denied - SSL encryption is required for this class.\r\n");
  const std::string denied = "530 Login denied - already 2/1 users connected sorry, setting ";
  run_together(s, {
                      {"u2", "pw", "", denied + "LIMIT_USERS.\r\n"},
                      {"p1", "pw", "", denied + "LIMIT_PERUSER.\r\n"},
                      {"i2", "pw", "127.0.0.2", denied + "LIMIT_CON_PERIP.\r\n"},
                      {"i2", "pw", "127.0.0.3", "230 User i2 logged in.\r\n"},
                      {"zed", "pw", "", "530 Login incorrect - (zed), Username not valid for this domain.\r\n"},
                  });
}

TEST(Login, BannerWithTheAliasTable) {
  Server s(om_config(one_domain("\tclass type=\"real\" users=\"alice\" name=\"b\" class_name=\"b\"\n"
                                "\t\tdir alias=\"/\" path=\"@HOME@/home/$username/\" read=\"true\" write=\"true\"\n"
                                "\t\tdir alias=\"/pub\" path=\"@HOME@/pub\" read=\"true\" nodel=\"true\"\n"
                                "\t\tdir alias=\"/in\" path=\"/i\" write=\"true\" nolist=\"true\" nomkdir=\"true\"\n"
                                "\t\tbanner \"Welcome\\n%virtual_paths%\\nBye\"\n")));
  s.user("alice", "pw");
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  auto pad30 = [](std::string x) { return x.size() < 30 ? x + std::string(30 - x.size(), ' ') : x; };
  EXPECT_EQ(login(c, "alice", "pw"),
            "230-Welcome\r\n"
            "230-  Alias                Real path                      Access\r\n"
            "230-  /                    " + pad30(s.path("home/alice")) + " read+write\r\n"
            "230-  /pub                 " + pad30(s.path("pub")) + " read+nodel\r\n"
            "230-  /in                  /i                             +write+nolist+nomkdir\r\n"
            "230-Bye\r\n"
            "230 User alice logged in.\r\n");
}

TEST(Login, ThrottlesOfAddressesAndAnonymousLogins) {
  Server s(om_config(one_domain(), "\tglobal_anon_hammer_active \"true\"\n\tglobal_anon_hammer_max \"2\"\n"));
  s.user("alice", "pw");
  ASSERT_TRUE(s.start());
  // Nine failures from one address within the period stop the tenth attempt
  // before the password is even tried.
  std::vector<Attempt> nine(9, {"alice", "wrong", "127.0.0.2", "530 Login incorrect alice -ERR alice bad login \r\n"});
  run_together(s, nine);
  FtpClient c;
  open(c, s, "127.0.0.1", "127.0.0.2");
  EXPECT_EQ(login(c, "alice", "pw"), "530 Login incorrect - too many attempts try later (127.0.0.2)\r\n");
  EXPECT_TRUE(c.wait_closed());
  FtpClient other;
  open(other, s, "127.0.0.1", "127.0.0.3");
  EXPECT_EQ(login(other, "alice", "pw"), "230 User alice logged in.\r\n");

  // Two anonymous logins a period from one address; the third is turned away
  // at USER.
  for (int i = 0; i < 2; i++) {
    FtpClient a;
    open(a, s, "127.0.0.1", "127.0.0.4");
    EXPECT_EQ(a.cmd("USER anonymous"), kAnonOk) << i;
  }
  FtpClient a;
  open(a, s, "127.0.0.1", "127.0.0.4");
  EXPECT_EQ(a.cmd("USER ftp"), "450 Server Access temporially unavailable, please try again later.\r\n");
  EXPECT_EQ(a.cmd("NOOP"), "530 User and pass still required\r\n");
  FtpClient b;
  open(b, s, "127.0.0.1", "127.0.0.5");
  EXPECT_EQ(b.cmd("USER ftp"), kAnonOk);
}

// A module that dies on every request is asked again (up to five times in
// about four seconds), and the refusal blames the outage, not the password.
TEST(Login, FailingModuleIsRetriedThenTheOutageReported) {
  Server s(om_config("vdomain address=\"\" name=\"test\"\n"
                     "\tdomain_authent_process \"@HOME@/dying.sh\"\n"
                     "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
                     "\t\tdir alias=\"/\" path=\"@HOME@/home\" read=\"true\"\n"));
  write_script(s.path("dying.sh"), "read line\nexit 0\n");
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  EXPECT_EQ(login(c, "bob", "pw"),
            "530 Login incorrect bob Unable to authenticate at this time, please try again. \r\n");
  std::string log = s.log_text();
  size_t tries = 0;
  for (size_t at = 0; (at = log.find("user_login_generic(test,bob,", at)) != std::string::npos; at++) tries++;
  EXPECT_GE(tries, 2u);
  EXPECT_LE(tries, 5u);
}

TEST(Login, NewUserProgramRunsForAFreshHome) {
  Server s(om_config(one_domain("\tclass type=\"real\" users=\"nu\" name=\"new\" class_name=\"newcomers\"\n"
                                "\t\tdir alias=\"/\" path=\"@HOME@/homes/$username\" read=\"true\"\n"
                                "\t\tmkdir_auto \"true\"\n\t\tnew_user_program \"@HOME@/newuser.sh\"\n")));
  s.user("nu", "pw");
  write_script(s.path("newuser.sh"), "echo \"$@\" > '" + s.dir() + "/newuser.args'\n");
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  EXPECT_EQ(login(c, "nu", "pw"), "230-Home directory ready for first time use.\r\n230 User nu logged in.\r\n");
  EXPECT_TRUE(fs::is_directory(s.path("homes/nu")));
  // Children are started without a shell: the quotes reach the program.
  EXPECT_EQ(slurp(s.path("newuser.args")),
            "\"korvaneinfo\" \"nu\" \"/nu\" \"test\" \"newcomers\" \"" + s.path("homes/nu") + "\"\n");
  fs::remove(s.path("newuser.args"));
  // The home is there now: no program the second time.
  FtpClient d;
  open(d, s);
  EXPECT_EQ(login(d, "nu", "pw"), "230 User nu logged in.\r\n");
  EXPECT_FALSE(fs::exists(s.path("newuser.args")));
}

// A system account, made for the test and removed after it.
TEST(Login, SystemAccountWhenRoot) {
  if (geteuid() != 0 || access("/usr/sbin/useradd", X_OK) != 0)
    GTEST_SKIP() << "system logins need root and useradd to make a throw-away account";
  std::string name = "korvl" + std::to_string(getpid() % 100000);
  char salt[CRYPT_GENSALT_OUTPUT_SIZE] = {};
  ASSERT_NE(crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof salt), nullptr);
  crypt_data cd{};
  std::string hash = crypt_rn("Sys-Secret", salt, &cd, sizeof cd);
  std::string cmd = "/usr/sbin/useradd -M -d /tmp/" + name + " -s /bin/sh -p '" + hash + "' " + name + " >/dev/null 2>&1";
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
