// Disk quotas end to end with users of the bundled module: the "230-Quota"
// line at login, the count kept in ".korvane_quota" between sessions and
// rebuilt when that file is stale, uploads between 100% and 105% of the
// limit and above it, two sessions of one user, and global_noquota.
#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const std::string kOmauth = KORV_BINARY_DIR "/omauth";
constexpr long long kDirBytes = 4096;  // what "." and ".." count in a rebuild
constexpr long long kLimit = 1000000;  // the class's quota_default

std::string kb(long long n) { return std::to_string(n / 1024) + "k"; }

// Module users with homes under home/; the class "real" has a quota of
// kLimit bytes, the user "free" a class with none. `global` adds global
// settings.
struct Server : KorvServer {
  explicit Server(const std::string& global = "")
      : KorvServer(config(global)) {
    fs::create_directories(path("home"));
  }
  static std::string config(const std::string& global) {
    std::string c = KorvServer::basic_config("\tglobal_log_flush \"true\"\n\tauthent_process \"" + kOmauth +
                                             "\"\n\tauthent_cmdopts \"-file @HOME@/users\"\n" + global);
    return c + "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
               "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n"
               "\t\tquota_default \"" + std::to_string(kLimit) + "\"\n"
               "\tclass type=\"real\" users=\"free\" name=\"free\" class_name=\"free\"\n"
               "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n";
  }
  // A user with an empty home; `fields` end the line (ftpquota="...").
  void user(const std::string& name, const std::string& fields = "") {
    users_[name] = name + " password=\"" + hash_of("pw") + "\" " + fields + "\n";
    std::ofstream out(path("users"));
    for (const auto& u : users_) out << u.second;
    fs::create_directories(path("home/" + name));
    fs::permissions(path("home/" + name), fs::perms::all);  // open to the account the session acts as
  }
  std::string qfile(const std::string& name) const { return path("home/" + name + "/.korvane_quota"); }
  std::map<std::string, std::string> users_;
};

struct Session : FtpClient {
  // Logs in; `login` holds the reply to PASS.
  Session(const Server& s, const std::string& name) {
    EXPECT_TRUE(connect(s.ftp_port()));
    reply();
    cmd("USER " + name);
    login = cmd("PASS pw");
  }
  // STOR of `bytes` over a passive connection: the final reply, or the
  // refusal when there was no 150.
  std::string stor(const std::string& name, const std::string& bytes) {
    std::string r = cmd("PASV");
    unsigned h1, h2, h3, h4, p1, p2;
    if (sscanf(r.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h1, &h2, &h3, &h4, &p1, &p2) != 6)
      return "PASV: " + r;
    FtpClient d;
    if (!d.connect(static_cast<int>(p1 * 256 + p2))) return "no data connection";
    std::string first = cmd("STOR " + name);
    if (first.compare(0, 3, "150") != 0) return first;
    d.send_raw(bytes);
    d.close();
    return reply(60000);
  }
  void quit() {
    cmd("QUIT");
    wait_closed();
  }
  std::string login;
};

// Waits (20 seconds at most) until `path` holds `want`: the end of a
// session writes it on the session's thread after the control connection
// has gone.
bool wait_content(const std::string& path, const std::string& want) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (slurp(path) != want) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

void age(const std::string& path, int seconds) {
  struct utimbuf t {};
  t.actime = t.modtime = time(nullptr) - seconds;
  ASSERT_EQ(utime(path.c_str(), &t), 0);
}

TEST(Quota, CountKeptBetweenSessionsAndRebuiltWhenStale) {
  Server s;
  s.user("amy");
  std::ofstream(s.path("home/amy/old")) << std::string(100000, 'o');
  ASSERT_TRUE(s.start());
  long long used = 2 * kDirBytes + 100000;
  {
    // No file yet: the count comes from a walk of the home.
    Session c(s, "amy");
    EXPECT_EQ(c.login, "230-Quota Used " + kb(used) + "/" + kb(kLimit) + "\r\n230 User amy logged in.\r\n");
    EXPECT_FALSE(fs::exists(s.qfile("amy")));
    EXPECT_EQ(c.stor("new", std::string(50000, 'n')), "226 Transfer complete. new\r\n");
    c.quit();
  }
  used += 50000;
  ASSERT_TRUE(wait_content(s.qfile("amy"), std::to_string(used)));  // decimal, no newline
  EXPECT_TRUE(s.wait_log("Rebuilt quota, result " + kb(2 * kDirBytes + 100000)));

  // A fresh file is believed and consumed: 999 KiB against a limit of
  // 1000000 bytes is over it.
  std::ofstream(s.qfile("amy"), std::ios::trunc) << 999 * 1024 << "\n";
  {
    Session c(s, "amy");
    EXPECT_EQ(c.login, "230-Quota Exceeded 999k/976k\r\n230 User amy logged in.\r\n");
    EXPECT_FALSE(fs::exists(s.qfile("amy")));
    EXPECT_EQ(c.stor("more", "x"), "550 more: FTP Quota 999k/976k exceeded\r\n");
    EXPECT_EQ(c.cmd("STOR .korvane_quota"), "501 sorry cannot store quota file\r\n");
    c.quit();
  }
  EXPECT_TRUE(s.wait_log("Quota read from file 999k"));
  // Stale after 180 seconds: rebuilt from the tree whatever the file says.
  ASSERT_TRUE(wait_content(s.qfile("amy"), std::to_string(used)));
  std::ofstream(s.qfile("amy"), std::ios::trunc) << 5;
  age(s.qfile("amy"), 200);
  {
    Session c(s, "amy");
    EXPECT_EQ(c.login, "230-Quota Used " + kb(used) + "/" + kb(kLimit) + "\r\n230 User amy logged in.\r\n");
    EXPECT_FALSE(fs::exists(s.qfile("amy")));
    c.quit();
  }
  EXPECT_TRUE(s.wait_log("Quota file missing or more than a week old, so rebuilding it"));
  s.check_clean();
}

TEST(Quota, UploadsPastTheLimit) {
  Server s;
  s.user("bea", "ftpquota=\"100000\"");  // the user's own limit beats the class's
  s.user("cy", "ftpquota=\"100000\"");
  ASSERT_TRUE(s.start());
  {
    // 8192 + 95000 is over 100000 but not over 105%: the file stays.
    Session c(s, "bea");
    EXPECT_EQ(c.login, "230-Quota Used 8k/97k\r\n230 User bea logged in.\r\n");
    EXPECT_EQ(c.stor("a", std::string(95000, 'a')), "426 Transfer failed. a Quota Exceeded - Please remove files.\r\n");
    EXPECT_EQ(fs::file_size(s.path("home/bea/a")), 95000u);
    c.quit();
  }
  {
    // Above 105%: the file goes, and so does its count.
    Session c(s, "cy");
    EXPECT_EQ(c.stor("b", std::string(100000, 'b')), "426 Transfer failed. b Quota Exceeded - File Deleted.\r\n");
    EXPECT_FALSE(fs::exists(s.path("home/cy/b")));
    EXPECT_EQ(c.stor("c", std::string(1000, 'c')), "226 Transfer complete. c\r\n");
    c.quit();
  }
  EXPECT_TRUE(wait_content(s.qfile("cy"), std::to_string(2 * kDirBytes + 1000)));
  s.check_clean();
}

TEST(Quota, TwoSessionsOfOneUser) {
  Server s;
  s.user("dan");
  ASSERT_TRUE(s.start());
  Session a(s, "dan");
  Session b(s, "dan");  // finds no file: the first session consumed it
  EXPECT_EQ(b.login, a.login);
  EXPECT_EQ(a.stor("x", std::string(1000, 'x')), "226 Transfer complete. x\r\n");
  EXPECT_EQ(b.stor("y", std::string(2000, 'y')), "226 Transfer complete. y\r\n");
  a.quit();
  const long long disk = 2 * kDirBytes + 3000;
  ASSERT_TRUE(wait_content(s.qfile("dan"), std::to_string(disk)));
  // The last to end re-reads the first one's count and adds its own change
  // on top, so its upload is counted twice until the next rebuild.
  b.quit();
  EXPECT_TRUE(wait_content(s.qfile("dan"), std::to_string(disk + 2000)));
  s.check_clean();
}

TEST(Quota, NoFileWithoutALimitOrWithGlobalNoquota) {
  Server s("\tglobal_noquota \"true\"\n");
  s.user("eve");
  s.user("free");
  ASSERT_TRUE(s.start());
  std::ofstream(s.qfile("eve")) << 5000;
  {
    Session c(s, "eve");  // the check at login still happens
    EXPECT_EQ(c.login, "230-Quota Used 4k/976k\r\n230 User eve logged in.\r\n");
    c.quit();
  }
  {
    Session c(s, "free");
    EXPECT_EQ(c.login, "230 User free logged in.\r\n");
    EXPECT_EQ(c.stor("f", "data"), "226 Transfer complete. f\r\n");
    c.quit();
  }
  ASSERT_TRUE(s.stop());
  EXPECT_FALSE(fs::exists(s.qfile("eve")));
  EXPECT_FALSE(fs::exists(s.qfile("free")));
}

}  // namespace
}  // namespace korv::test
