// Whose identity file work runs under, end to end: module users without
// system ids, anonymous sessions, homes made at login and the quota file act
// as the unprivileged account (ftp, else nobody), never as the server's root;
// SITE CHMOD gives permission bits only; a name let in on its lower-case retry
// is the session's name; programs get every name as one argument.
#include <crypt.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/korv_server.h"
#include "tests/support/texts.h"
#include "tests/support/xfer.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const std::string kOmauth = KORV_BINARY_DIR "/omauth";

// The account sessions fall back to, as the server picks it.
uid_t unprivileged_uid() {
  for (const char* name : {"ftp", "nobody"})
    if (passwd* pw = getpwnam(name)) return pw->pw_uid;
  return 65534;
}

bool is_root() { return geteuid() == 0; }

// One domain: the anonymous class (pub/ read, up/ read and write, then
// `anon`), a class for every module user with a home under home/, then
// `classes`. `global` adds global settings.
struct Server : KorvServer {
  explicit Server(const std::string& classes = "", const std::string& anon = "", const std::string& global = "")
      : KorvServer(config(classes, anon, global)) {
    fs::create_directories(path("home"));
    open_dir("up");
  }
  static std::string config(const std::string& classes, const std::string& anon, const std::string& global) {
    std::string c = KorvServer::basic_config("\tauthent_process \"" + kOmauth + "\"\n" +
                                             "\tauthent_cmdopts \"-file @HOME@/users\"\n" + global);
    return c + "\t\tdir alias=\"/up\" path=\"@HOME@/up\" read=\"true\" write=\"true\"\n" + anon +
           "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
           "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n" +
           classes;
  }
  // A directory of the tree that every account may write.
  void open_dir(const std::string& name) {
    fs::create_directories(path(name));
    ::chmod(path(name).c_str(), 0777);
  }
  // A module user (password "pw") with an open home; `fields` end its line.
  void user(const std::string& name, const std::string& fields = "") {
    users_[name] = name + " password=\"" + hash_of("pw") + "\" " + fields + "\n";
    std::ofstream out(path("users"));
    for (const auto& u : users_) out << u.second;
    open_dir("home/" + name);
  }
  // A file of the server's own account with `mode`.
  void root_file(const std::string& name, mode_t mode) {
    std::ofstream(path(name)) << "not yours\n";
    ::chmod(path(name).c_str(), mode);
  }
  struct stat st(const std::string& name) const {
    struct stat s {};
    EXPECT_EQ(::lstat(path(name).c_str(), &s), 0) << name;
    return s;
  }
  std::map<std::string, std::string> users_;
};

struct Session : FtpClient {
  Session(const Server& s, const std::string& user, const std::string& pass) {
    EXPECT_TRUE(connect(s.ftp_port()));
    reply();
    cmd("USER " + user);
    login = cmd("PASS " + pass);
    cmd("TYPE I");
  }
  std::string login;
};

const std::string kFive = "12345";

// Module users: without ids they act as the unprivileged account, so the
// server's private files stay closed to them and their uploads are not
// root's; ids from the module are taken as given; user_noimpersonate keeps
// the server's own identity.
TEST(SecIdentity, ModuleUsersNeverActAsRootByAccident) {
  if (!is_root()) GTEST_SKIP() << "needs root: the server can switch identity only as root";
  Server s("\tclass type=\"real\" users=\"keep\" name=\"keep\" class_name=\"keep\"\n"
           "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n"
           "\t\tuser_noimpersonate \"true\"\n");
  const struct {
    const char* user;
    const char* fields;
    uid_t owner;  // of an upload
    bool reads_private;
  } cases[] = {
      {"mod", "", unprivileged_uid(), false},
      {"ided", "ftpuid=\"4321\" ftpgid=\"4322\"", 4321, false},
      {"keep", "", 0, true},
  };
  for (const auto& k : cases) {
    s.user(k.user, k.fields);
    s.root_file(std::string("home/") + k.user + "/private", 0600);
    s.root_file(std::string("home/") + k.user + "/none", 0);
  }
  ASSERT_TRUE(s.start());
  for (const auto& k : cases) {
    Session c(s, k.user, "pw");
    ASSERT_EQ(c.login, std::string("230 User ") + k.user + " logged in.\r\n");
    for (const char* name : {"private", "none"}) {
      Xfer x = run(c, std::string("RETR ") + name);
      if (k.reads_private) {
        EXPECT_EQ(x.data, "not yours\n") << k.user << " " << name;
      } else {
        EXPECT_EQ(x.first.compare(0, 4, "550 "), 0) << k.user << " " << name << ": " << x.first;
        EXPECT_NE(x.first.find("Cannot open file"), std::string::npos) << x.first;
      }
    }
    EXPECT_EQ(run(c, "STOR up.bin", &kFive).last, "226 Transfer complete. up.bin\r\n") << k.user;
    struct stat st = s.st(std::string("home/") + k.user + "/up.bin");
    EXPECT_EQ(st.st_uid, k.owner) << k.user;
    if (k.owner == 4321) {
      EXPECT_EQ(st.st_gid, 4322u);
    }
  }
}

// Anonymous sessions act as the unprivileged account unless the class names
// an existing account to act as or keeps the server's identity; an acting
// user that does not exist leaves them unprivileged, not root.
TEST(SecIdentity, AnonymousSessionsActAsTheAnonymousAccount) {
  if (!is_root()) GTEST_SKIP() << "needs root: the server can switch identity only as root";
  passwd* daemon = getpwnam("daemon");
  if (daemon == nullptr) GTEST_SKIP() << "no system account daemon to act as";
  const uid_t daemon_uid = daemon->pw_uid;  // before getpwnam runs again
  const struct {
    const char* anon;  // class lines
    uid_t owner;
    bool reads_private;
  } cases[] = {
      {"", unprivileged_uid(), false},
      {"\t\tactas_user \"daemon\"\n", daemon_uid, false},
      {"\t\tactas_user \"korv_no_such_account\"\n", unprivileged_uid(), false},
      {"\t\tuser_noimpersonate \"true\"\n", 0, true},
  };
  for (const auto& k : cases) {
    Server s("", k.anon);
    s.root_file("pub/private", 0600);
    ASSERT_TRUE(s.start()) << k.anon;
    Session c(s, "anonymous", "me@example.org");
    ASSERT_EQ(c.login.compare(0, 4, "230 "), 0) << c.login;
    Xfer x = run(c, "RETR /private");
    EXPECT_EQ(x.data == "not yours\n", k.reads_private) << k.anon << x.first;
    EXPECT_EQ(run(c, "STOR /up/a.bin", &kFive).last, "226 Transfer complete. /up/a.bin\r\n") << k.anon;
    EXPECT_EQ(s.st("up/a.bin").st_uid, k.owner) << k.anon;
  }
}

// A home made at login belongs to the user who works in it, and the quota
// file in a home is the user's too, read without following a link put in
// its place.
TEST(SecIdentity, HomeAndQuotaFileBelongToTheActingUser) {
  if (!is_root()) GTEST_SKIP() << "needs root: the server can switch identity only as root";
  Server s("\tclass type=\"real\" users=\"fresh\" name=\"fresh\" class_name=\"fresh\"\n"
           "\t\tdir alias=\"/\" path=\"@HOME@/homes/$username\" read=\"true\" write=\"true\"\n"
           "\t\tmkdir_auto \"true\"\n");
  s.user("fresh");
  s.user("q", "ftpquota=\"100000000\"");
  std::ofstream(s.path("bait")) << "5000000000";
  fs::create_symlink(s.path("bait"), s.path("home/q/.korvane_quota"));
  ASSERT_TRUE(s.start());

  Session f(s, "fresh", "pw");
  EXPECT_EQ(f.login, "230 User fresh logged in.\r\n");
  EXPECT_EQ(s.st("homes/fresh").st_uid, unprivileged_uid());
  EXPECT_EQ(s.st("homes").st_uid, 0u);  // the folders above stay the server's
  EXPECT_EQ(run(f, "STOR f.bin", &kFive).last, "226 Transfer complete. f.bin\r\n");

  Session q(s, "q", "pw");
  EXPECT_EQ(q.login.compare(0, 15, "230-Quota Used "), 0) << q.login;
  EXPECT_EQ(q.login.find("4882812k"), std::string::npos) << "the link was followed: " << q.login;
  EXPECT_EQ(run(q, "STOR q.bin", &kFive).last, "226 Transfer complete. q.bin\r\n");
  q.cmd("QUIT");
  q.wait_closed();
  // The count is written as the session ends.
  struct stat st {};
  for (int i = 0; i < 200 && !(::lstat(s.path("home/q/.korvane_quota").c_str(), &st) == 0 && S_ISREG(st.st_mode));
       i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_uid, unprivileged_uid());
  EXPECT_EQ(slurp(s.path("bait")), "5000000000");
}

// A client sets permission bits only: no set-id or sticky bit.
TEST(SecIdentity, SiteChmodKeepsPermissionBitsOnly) {
  Server s;
  s.user("mod");
  ASSERT_TRUE(s.start());
  Session c(s, "mod", "pw");
  ASSERT_EQ(c.login, "230 User mod logged in.\r\n");
  ASSERT_EQ(run(c, "STOR tool", &kFive).last, "226 Transfer complete. tool\r\n");
  const struct {
    const char* mode;
    mode_t want;
  } cases[] = {{"6755", 0755}, {"4777", 0777}, {"2750", 0750}, {"1700", 0700}, {"7777", 0777}, {"640", 0640}};
  for (const auto& k : cases) {
    EXPECT_EQ(c.cmd(std::string("SITE CHMOD ") + k.mode + " tool"), "200 CHMOD command successful.\r\n");
    EXPECT_EQ(s.st("home/mod/tool").st_mode & 07777, k.want) << k.mode;
  }
}

// "Bob" let in with bob's password is bob everywhere: the reply, the home,
// where uploads land.
TEST(SecIdentity, LowerCaseRetryMakesTheSessionTheAcceptedAccount) {
  Server s;
  s.user("bob");
  fs::create_directories(s.path("home/Bob"));
  ASSERT_TRUE(s.start());
  Session c(s, "Bob", "pw");
  EXPECT_EQ(c.login, "230 User bob logged in.\r\n");
  EXPECT_EQ(run(c, "STOR mine.bin", &kFive).last, "226 Transfer complete. mine.bin\r\n");
  EXPECT_TRUE(fs::exists(s.path("home/bob/mine.bin")));
  EXPECT_FALSE(fs::exists(s.path("home/Bob/mine.bin")));
}

// The watcher and the new-user program get each name as one argument,
// blanks and quotes included.
TEST(SecIdentity, ProgramsGetNamesWhole) {
  const std::string args_script = "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done > \"$(dirname \"$0\")/$1.out\"\n";
  Server s("\tclass type=\"real\" users=\"nu\" name=\"new\" class_name=\"new comers\"\n"
           "\t\tdir alias=\"/\" path=\"@HOME@/new homes/$username\" read=\"true\"\n"
           "\t\tmkdir_auto \"true\"\n\t\tnew_user_program \"@HOME@/progs/run.sh korvaneinfo\"\n",
           "", "\tglobal_watcher_program_ul \"@HOME@/progs/run.sh upload\"\n");
  s.open_dir("progs");
  std::ofstream(s.path("progs/run.sh")) << args_script;
  ::chmod(s.path("progs/run.sh").c_str(), 0755);
  s.user("nu");
  ASSERT_TRUE(s.start());

  Session a(s, "anonymous", "me@example.org");
  const std::string name = "my \"odd\" file.txt";
  EXPECT_EQ(run(a, "STOR /up/" + name, &kFive).last, "226 Transfer complete. /up/" + name + "\r\n");
  EXPECT_EQ(slurp(s.path("progs/upload.out")), "[upload]\n[file=" + s.path("up/" + name) +
                                                   "]\n[bytes=5]\n[user=anonymous]\n[userip=127.0.0.1]\n"
                                                   "[transfer=uploaded]\n");

  Session n(s, "nu", "pw");
  EXPECT_EQ(n.login, "230-Home directory ready for first time use.\r\n230 User nu logged in.\r\n");
  EXPECT_EQ(slurp(s.path("progs/korvaneinfo.out")),
            "[korvaneinfo]\n[korvaneinfo]\n[nu]\n[/nu]\n[test]\n[new comers]\n[" + s.path("new homes/nu") + "]\n");
}

}  // namespace
}  // namespace korv::test
