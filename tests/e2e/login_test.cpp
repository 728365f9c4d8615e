// Logins end to end against the real server: anonymous spellings and address
// checks, real users through the bundled module omauth, wrong passwords and
// the close after too many, account statuses, class, address and user limits,
// banners with the alias table, the login cache, both throttles, the new-user
// program, a system login, and passwords kept out of every log.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

const std::string kOmauth = KORV_BINARY_DIR "/omauth";

std::string greeting(const char* domain = "test") {
  return std::string("220 Korvane ") + domain + " (Version 0.1.0)\r\n";
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Creates or sets a user in an omauth users file; `fields` are appended to the
// user's line (e.g. accountstatus="paydue").
void om_user(const std::string& file, const std::string& name, const std::string& pass,
             const std::string& fields = "") {
  std::string cmd = "printf '%s\\n' '" + pass + "' | '" + kOmauth + "' -passwd '" + file + "' '" + name + "'";
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
  if (fields.empty()) return;
  std::string text = slurp(file), out, line;
  std::istringstream in(text);
  while (std::getline(in, line)) {
    if (line.compare(0, name.size() + 1, name + " ") == 0) line += " " + fields;
    out += line + "\n";
  }
  std::ofstream(file) << out;
}

// The fixture's configuration with the module on a users file in the home,
// `global` lines added to the global settings, and `classes` after the
// anonymous class.
std::string om_config(const std::string& global = "", const std::string& domain = "",
                      const std::string& classes = "") {
  std::string c = KorvServer::basic_config("\tauthent_process \"" + kOmauth + "\"\n" +
                                           "\tauthent_cmdopts \"-file @HOME@/users\"\n" + global);
  size_t at = c.find("\temail");
  c.insert(at, domain);
  return c + "\t\tlimit_time \"15\"\n" +
         "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
         "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n" +
         classes;
}

// A server whose home holds pub/ and the users file.
struct Server : KorvServer {
  explicit Server(const std::string& config) : KorvServer(config) {
    std::filesystem::create_directories(path("pub"));
    std::filesystem::create_directories(path("home"));
  }
  void user(const std::string& name, const std::string& pass, const std::string& fields = "") {
    om_user(path("users"), name, pass, fields);
    std::filesystem::create_directories(path("home/" + name));
  }
};

// USER then PASS; the reply to PASS.
std::string login(FtpClient& c, const std::string& user, const std::string& pass) {
  std::string r = c.cmd("USER " + user);
  if (r.compare(0, 3, "331") != 0) return r;
  return c.cmd("PASS " + pass);
}

TEST(Login, AnonymousSpellings) {
  Server s(KorvServer::basic_config());
  ASSERT_TRUE(s.start());
  const struct {
    const char* user;
    const char* name;  // as the final reply shows it
  } cases[] = {{"ftp", "anonymous"}, {"anonymous@", "anonymous"}, {"ANONYMOUS", "ANONYMOUS"}, {"Guest", "Guest"}};
  for (const auto& k : cases) {
    FtpClient c;
    ASSERT_TRUE(c.connect(s.ftp_port()));
    ASSERT_EQ(c.reply(), greeting());
    EXPECT_EQ(c.cmd(std::string("USER ") + k.user),
              "331 Guest login ok, send your complete e-mail address as password.\r\n");
    EXPECT_EQ(c.cmd("PASS me@example.org"),
              std::string("230 Anonymous access granted, restrictions apply.") + k.name + "\r\n")
        << k.user;
    EXPECT_EQ(c.cmd("NOOP"), "200 NOOP command successful.\r\n");
  }
}

TEST(Login, RealUserThroughModule) {
  Server s(om_config());
  s.user("alice", "Secret-42");
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), greeting());
  EXPECT_EQ(c.cmd("USER alice"), "331 Password required for alice.\r\n");
  EXPECT_EQ(c.cmd("NOOP"), "530 User and pass still required\r\n");
  EXPECT_EQ(c.cmd("PASS Secret-42"), "230 User alice logged in.\r\n");
  EXPECT_EQ(login(c, "alice", "wrong"), "530 Login incorrect alice -ERR alice bad login \r\n");
  EXPECT_EQ(c.cmd("NOOP"), "530 User and pass still required\r\n");  // USER began a new login
}

}  // namespace
}  // namespace korv::test
