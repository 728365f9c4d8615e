// The commands that act on names end to end: CWD and its relatives with the
// `.message` files, MKD, RMD, DELE, SIZE, MDTM, MFMT, RNFR and RNTO, the SITE
// commands, and the path length limits, asserting exact reply bytes and what
// happened on disk.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

constexpr time_t kFeb3 = 1580702700;  // 2020-02-03 04:05:00 UTC

// Anonymous sessions with a banner: "/" is pub/ (read only) with a.txt, sub/
// and a `.message` at the top and in sub/; "/up" is up/ (read and write);
// "*.key" may not be fetched and "*.exe" not uploaded.
struct Server : KorvServer {
  explicit Server(const std::string& global = "")
      // The files here are the test's own: the sessions keep the server's
      // identity (the identity tests cover the switch).
      : KorvServer(basic_config(global) + "\t\tbanner \"Hi\"\n\t\tnoretrieve \"*.key\"\n\t\tnoupload \"*.exe\"\n\t\tdir alias=\"/up\" path=\"@HOME@/up\" read=\"true\" write=\"true\"\n"
                   "\t\tuser_noimpersonate \"true\"\n") {
    setenv("TZ", "UTC", 1);  // the server inherits it
    std::filesystem::create_directories(path("pub/sub"));
    std::filesystem::create_directories(path("up"));
    put("pub/a.txt", "hello");
    put("pub/.message", "Welcome\n");
    put("pub/sub/.message", "Hello\r\nWorld\n");
    struct utimbuf t {kFeb3, kFeb3};
    utime(path("pub/a.txt").c_str(), &t);
  }
  void put(const std::string& name, const std::string& bytes) { std::ofstream(path(name)) << bytes; }
  bool exists(const std::string& name) { return std::filesystem::exists(path(name)); }
  struct stat st(const std::string& name) {
    struct stat st {};
    stat(path(name).c_str(), &st);
    return st;
  }
};

struct Session : FtpClient {
  std::string login;  // the reply to PASS
  explicit Session(const Server& s) {
    EXPECT_TRUE(connect(s.ftp_port()));
    reply();
    cmd("USER anonymous");
    login = cmd("PASS me@example.org");
  }
};

struct Case {
  const char* line;
  std::string want;
};

void run(FtpClient& c, const Case* cases, size_t n) {
  for (size_t i = 0; i < n; i++) EXPECT_EQ(c.cmd(cases[i].line), cases[i].want) << cases[i].line;
}

TEST(FileCmd, DirectoryChangesAndMessages) {
  Server s;
  ASSERT_TRUE(s.start());
  Session c(s);
  EXPECT_EQ(c.login, "230-Hi\r\n230-Welcome\r\n230 User anonymous logged in.\r\n");
  const Case cases[] = {
      {"PWD", "257 \"/\" is current directory.\r\n"},
      {"CWD sub", "250-Hello\r\n250-World\r\n250 CWD command successful now (/sub)\r\n"},
      {"PWD", "257 \"/sub\" is current directory.\r\n"},
      {"XPWD", "257 \"/\" is current directory.\r\n"},
      {"CDUP", "250-Welcome\r\n250 CWD command successful now (/)\r\n"},
      {"CDUP", "550 Cant figure out alias's (Invalid virtual path)\r\n"},
      {"CWD missing", "550 /missing: No such directory: No such file or directory\r\n"},
      {"CWD a.txt", "550 /a.txt: No such directory: Not a directory\r\n"},
      {"XCWD //up//", "250 CWD command successful now (/up)\r\n"},
      {"XCUP", "250-Welcome\r\n250 CWD command successful now (/)\r\n"},
      {"CWD up", "250 CWD command successful now (/up)\r\n"},
      {"CWD ~x", "250-Welcome\r\n250 CWD command successful now (/)\r\n"},
      {"CWD /sub/../up", "250 CWD command successful now (/up)\r\n"},
      {"PWD", "257 \"/up\" is current directory.\r\n"},
  };
  run(c, cases, std::size(cases));
  // At the limit the path is refused before any look at the disk; one less
  // is looked up.
  EXPECT_EQ(c.cmd("CWD " + std::string(398, 'd')), "550 Max path length exceeded 398\r\n");
  EXPECT_EQ(c.cmd("CWD " + std::string(397, 'd')),
            "550 /up/" + std::string(397, 'd') + ": No such directory: File name too long\r\n");
}

TEST(FileCmd, MakeRemoveDeleteAndTimes) {
  Server s;
  s.put("up/f", "12345");
  ASSERT_TRUE(s.start());
  Session c(s);
  const Case cases[] = {
      {"MKD up/d/e", "257 \"up/d/e\" directory created\r\n"},
      {"XMKD /up/x", "257 \"/up/x\" directory created\r\n"},
      {"MKD newdir", "550 newdir: mkdir access denied (/newdir)\r\n"},
      {"RMD up/d", "550 up/d: Directory not empty\r\n"},
      {"RMD up/d/e", "250 \"up/d/e\" directory deleted\r\n"},
      {"XRMD up/d", "250 \"up/d\" directory deleted\r\n"},
      {"RMD up/d", "550 up/d: No such file or directory\r\n"},
      {"SIZE up/f", "213 5\r\n"},
      {"SIZE up/x", "550 Cannot get file size up/x: Not a plain file\r\n"},
      {"SIZE nothing", "550 Cannot get file size nothing: No such file or directory\r\n"},
      {"MDTM a.txt", "213 20200203040500\r\n"},
      {"MDTM nothing", "550 Cannot get modified time nothing: No such file or directory\r\n"},
      {"MFMT 20210102030405 up/f", "213 modified=20210102030405\r\n"},
      {"DELE up/f", "250 File up/f deleted successfully.\r\n"},
      {"RM up/f", "550 Delete up/f failed: No such file or directory \r\n"},
  };
  run(c, cases, std::size(cases));
  EXPECT_TRUE(s.exists("up/x"));
  EXPECT_FALSE(s.exists("up/d"));
  EXPECT_FALSE(s.exists("up/f"));

  // MFMT takes the whole rest of the line as the name; a time it cannot
  // read is the epoch, set on the file all the same.
  s.put("up/my file", "x");
  s.put("up/g", "x");
  EXPECT_EQ(c.cmd("MFMT 20210102030405 up/my file"), "213 modified=20210102030405\r\n");
  EXPECT_EQ(s.st("up/my file").st_mtime, 1609556645);
  EXPECT_EQ(c.cmd("MFMT 1 up/g"), "213 modified=19700101000000\r\n");
  EXPECT_EQ(s.st("up/g").st_mtime, 0);
}

TEST(FileCmd, Rename) {
  Server s;
  s.put("up/f", "first");
  s.put("up/g", "second");
  ASSERT_TRUE(s.start());
  Session c(s);
  const Case cases[] = {
      {"RNTO up/h", "503 Bad sequence of commands\r\n"},
      {"RNFR up/missing", "550 up/missing: No such file or directory\r\n"},
      {"RNTO up/h", "503 Bad sequence of commands\r\n"},  // a failed RNFR forgets the name
      {"RNFR up/f", "350 File exists, ready for destination name\r\n"},
      {"RNTO up/g", "250 RNTO command successful.\r\n"},  // overwrites
      {"RNFR up/g", "350 File exists, ready for destination name\r\n"},
      {"RNTO /up/./g", "250 RNTO command successful.\r\n"},  // onto itself: kept
      {"RNTO up/h", "250 RNTO command successful.\r\n"},
      {"RNTO up/i", "553 Unable to rename file No such file or directory\r\n"},  // the name is kept
      {"RNFR a.txt", "350 File exists, ready for destination name\r\n"},
      {"RNTO a2.txt", "553 Unable to rename file Virtual rename access denied (/a.txt) (a.txt)\r\n"},
  };
  run(c, cases, std::size(cases));
  EXPECT_FALSE(s.exists("up/f"));
  EXPECT_FALSE(s.exists("up/g"));
  std::ifstream h(s.path("up/h"));
  std::string text;
  h >> text;
  EXPECT_EQ(text, "first");
  EXPECT_TRUE(s.exists("pub/a.txt"));

  // Names the filters hold back may be neither the source nor the target.
  s.put("up/s.key", "k");
  EXPECT_EQ(c.cmd("RNFR up/s.key"), "550 up/s.key: Cannot rename file for security reasons\r\n");
  EXPECT_EQ(c.cmd("RNFR up/h"), "350 File exists, ready for destination name\r\n");
  EXPECT_EQ(c.cmd("RNTO up/h.exe"), "553 up/h.exe: Sorry rename to noupload file name is not permitted\r\n");
  EXPECT_TRUE(s.exists("up/h") && s.exists("up/s.key"));

  const std::string long_name(398, 'n');
  EXPECT_EQ(c.cmd("RNFR " + long_name), "550 " + long_name + ": Max path length exceeded 398\r\n");
  EXPECT_EQ(c.cmd("RNTO " + long_name), "553 " + long_name + ": Max path length exceeded 398\r\n");
}

TEST(FileCmd, SiteCommands) {
  Server s;
  s.put("up/my file", "x");
  ASSERT_TRUE(s.start());
  Session c(s);
  const std::string help =
      "214-     Request        Description\r\n"
      "214-     UMASK          change umask. E.g. SITE UMASK 002\r\n"
      "214-     DIRSTYLE       toggles windows/unix dir listing format\r\n"
      "214-     CHMOD          change mode of a file. E.g. SITE CHMOD 755 filename\r\n"
      "214-     HELP           give help information. E.g. SITE HELP\r\n"
      "214 Direct comments to admin@localhost\r\n";
  const Case cases[] = {
      {"SITE", "500 SITE sub command expected\r\n"},
      {"SITE help", help},
      {"HELP site", help},
      {"SITE frob it", "502 SITE FROB command not implemented - let us know if you need this\r\n"},
      {"SITE IDLE 600", "200 Idle set to 600 seconds, 10 minutes\r\n"},
      {"SITE IDLE", "200 Idle set to 0 seconds, 10 minutes\r\n"},
      {"SITE DIRSTYLE", "200 MSDOS-like directory output is on\r\n"},
      {"CWD up", "250 CWD command successful now (/up)\r\n"},  // only "~" shows the DOS form
      {"CWD ~", "250-Welcome\r\n250 CWD command successful now (\\)\r\n"},
      {"site dirstyle", "200 MSDOS-like directory output is off\r\n"},
      {"CWD up", "250 CWD command successful now (/up)\r\n"},
      {"SITE CHMOD 600", "500 Not enough arguments given\r\n"},
      {"SITE CHMOD 640 my file", "200 CHMOD command successful.\r\n"},
      {"SITE CHMOD 640 none", "550 640 none failed: No such file or directory\r\n"},
  };
  run(c, cases, std::size(cases));
  EXPECT_EQ(s.st("up/my file").st_mode & 07777, 0640u);

  // The UMASK reply alone ends in a bare newline: the NOOP's reply follows
  // it at once. The new mask applies to the next directory made.
  ASSERT_TRUE(c.send_line("SITE UMASK 077"));
  EXPECT_EQ(c.cmd("NOOP"), "200 UMASK set to 077 (was 022)\n200 NOOP command successful.\r\n");
  EXPECT_EQ(c.cmd("MKD private"), "257 \"private\" directory created\r\n");
  EXPECT_EQ(s.st("up/private").st_mode & 07777, 0700u);
}

TEST(FileCmd, ChmodDisabled) {
  Server s("\tglobal_nochmod \"true\"\n");
  s.put("up/f", "x");
  ASSERT_TRUE(s.start());
  Session c(s);
  EXPECT_EQ(c.cmd("SITE CHMOD 600 up/f"), "550 Sorry chmod is disabled\r\n");
  EXPECT_EQ(s.st("up/f").st_mode & 0777, 0644u);
}

}  // namespace
}  // namespace korv::test
