// Directory listings end to end: LIST and NLST over passive data connections
// with the exact bytes of replies and lines, aliases shown as directories,
// wild-cards, empty and missing names, a directory the rules hide from
// listings, the Windows layout, the recursive form, STAT on the control
// channel, and a directory big enough to take several writes.
#include <gtest/gtest.h>
#include <pwd.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

constexpr time_t kFeb3 = 1580702700;  // 2020-02-03 04:05 UTC: an old year shows no time

struct Server : KorvServer {
  Server(const std::string& global, const std::string& cls)
      : KorvServer(KorvServer::basic_config(global) + cls) {
    setenv("TZ", "UTC", 1);  // the server inherits it: dates below are in UTC
    file("pub/a.txt", "hello", 0644);
    file("pub/b.bin", std::string(1234, 'b'), 0600);
    file("pub/sub/c.txt", "0123456789", 0644);
    dir("pub/sub", 0755);
    dir("pub/empty", 0755);
    dir("pub", 0755);
    file("elsewhere/x", "x", 0644);
  }
  ~Server() {
    if (running()) {
      EXPECT_TRUE(stop());
    }
  }
  void file(const std::string& name, const std::string& text, mode_t mode) {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    std::ofstream(path(name)) << text;
    fix(name, mode);
  }
  void dir(const std::string& name, mode_t mode) {
    std::filesystem::create_directories(path(name));
    fix(name, mode);
  }
  void fix(const std::string& name, mode_t mode) {
    chmod(path(name).c_str(), mode);
    struct utimbuf t {kFeb3, kFeb3};
    utime(path(name).c_str(), &t);
  }
  long long size(const std::string& name) { return st(name).st_size; }
  int links(const std::string& name) { return static_cast<int>(st(name).st_nlink); }
  struct stat st(const std::string& name) {
    struct stat st {};
    stat(path(name).c_str(), &st);
    return st;
  }
};

// The Unix line of an entry owned by this test's user, dated kFeb3.
std::string unix_line(const char* mode, int links, long long size, const std::string& name) {
  std::string owner = getpwuid(getuid())->pw_name;
  std::string group = getgrgid(getgid())->gr_name;
  char bf[600];
  snprintf(bf, sizeof bf, "%s %3d %-8s %-8s %8lld Feb  3  2020 %s\r\n", mode, links, owner.c_str(),
           group.c_str(), size, name.c_str());
  return bf;
}

std::string login(FtpClient& c, int port) {
  if (!c.connect(port)) return "no connection";
  c.reply();
  c.cmd("USER anonymous");
  return c.cmd("PASS me@example.org");
}

struct Listing {
  std::string first, data, last;
};

// PASV, a data connection, then `line`: the first reply, the data bytes and
// the closing reply (both empty when the first is not 150).
Listing list(FtpClient& c, const std::string& line) {
  Listing r;
  std::string pasv = c.cmd("PASV");
  unsigned h1, h2, h3, h4, p1, p2;
  if (sscanf(pasv.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h1, &h2, &h3, &h4, &p1,
             &p2) != 6) {
    r.first = pasv;
    return r;
  }
  FtpClient d;
  if (!d.connect(static_cast<int>(p1 * 256 + p2))) return r;
  r.first = c.cmd(line);
  if (r.first.compare(0, 3, "150") != 0) return r;
  r.data = d.read_raw(20000, size_t{1} << 24);
  r.last = c.reply();
  return r;
}

const char* const kDone = "226 Transfer complete. \r\n";

const std::string kAliasClass =
    "\t\tlist_aliases \"true\"\n"
    "\t\tdir alias=\"/virt/inner\" path=\"@HOME@/elsewhere\" read=\"true\"\n"
    "\t\tdir alias=\"/secret\" path=\"@HOME@/pub/sub\" read=\"true\" nolist=\"true\"\n";

TEST(Listing, UnixLinesAliasesAndWildcards) {
  Server s("", kAliasClass);
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_EQ(login(c, s.ftp_port()), "230 Anonymous access granted, restrictions apply.anonymous\r\n");

  // Aliases come first: "/virt/inner" shows as the directory "virt", "/secret"
  // as "secret", both read-only and dated now; then the sorted real entries.
  Listing all = list(c, "LIST");
  EXPECT_EQ(all.first, "150 Opening ASCII connection for /\r\n");
  size_t cut = 0;
  for (const char* alias : {"virt", "secret"}) {
    size_t eol = all.data.find("\r\n", cut);
    ASSERT_NE(eol, std::string::npos);
    std::string line = all.data.substr(cut, eol + 2 - cut);
    EXPECT_EQ(line.substr(0, 15), "dr-xr-xr-x   2 ") << line;
    EXPECT_EQ(line.substr(33, 8), "    4096") << line;  // after two names of 8
    EXPECT_EQ(line.substr(line.size() - strlen(alias) - 3), std::string(" ") + alias + "\r\n");
    cut = eol + 2;
  }
  EXPECT_EQ(all.data.substr(cut), unix_line("-rw-r--r--", 1, 5, "a.txt") +
                                      unix_line("-rw-------", 1, 1234, "b.bin") +
                                      unix_line("drwxr-xr-x", 2, s.size("pub/empty"), "empty") +
                                      unix_line("drwxr-xr-x", 2, s.size("pub/sub"), "sub"));
  EXPECT_EQ(all.last, kDone);

  const struct {
    const char* line;
    std::string first, data, last;
  } cases[] = {
      {"LIST *.txt", "150 Opening ASCII connection for /*.txt\r\n", unix_line("-rw-r--r--", 1, 5, "a.txt"), kDone},
      {"LIST *.zzz", "150 Opening ASCII connection for /*.zzz\r\n", "",
       "226 Transfer complete. Nothing found (*.zzz)\r\n"},
      {"LIST missing", "550 File or Directory does not exist (/missing)\r\n", "", ""},
      {"LIST empty", "150 Opening ASCII connection for /empty\r\n", "",
       "226 Transfer complete. (no files in directory).\r\n"},
      {"LIST -la sub", "150 Opening ASCII connection for /sub\r\n", unix_line("-rw-r--r--", 1, 10, "c.txt"), kDone},
      {"LIST sub/c.txt", "150 Opening ASCII connection for /sub/c.txt\r\n", unix_line("-rw-r--r--", 1, 10, "c.txt"),
       kDone},
      {"LIST /virt/inner", "150 Opening ASCII connection for /virt/inner\r\n", unix_line("-rw-r--r--", 1, 1, "x"),
       kDone},
      {"LIST /secret", "150 Opening ASCII connection for /secret\r\n", "",
       "226 Transfer complete. Virtual list access denied (/secret)\r\n"},
      {"LIST ../..", "550 Cant figure out alias's (Invalid virtual path)\r\n", "", ""},
      {"NLST", "150 Opening ASCII connection for /\r\n", "a.txt\r\nb.bin\r\nempty\r\nsub\r\n", kDone},
      {"NLST sub -a", "150 Opening ASCII connection for /sub\r\n", "sub/c.txt\r\n", kDone},
      {"NLST *.bin", "150 Opening ASCII connection for /*.bin\r\n", "b.bin\r\n", kDone},
      {"NLST -l *.bin", "150 Opening ASCII connection for /*.bin\r\n", unix_line("-rw-------", 1, 1234, "b.bin"),
       kDone},
      {"NLST missing", "550 File or Directory does not exist (/missing)\r\n", "", ""},
  };
  for (const auto& k : cases) {
    Listing r = list(c, k.line);
    EXPECT_EQ(r.first, k.first) << k.line;
    EXPECT_EQ(r.data, k.data) << k.line;
    EXPECT_EQ(r.last, k.last) << k.line;
  }

  // STAT lists on the control channel, without the aliases' data connection.
  EXPECT_EQ(c.cmd("STAT sub"), "213-status of sub:\r\n" + unix_line("-rw-r--r--", 1, 10, "c.txt") +
                                   "213 End of status\r\n");
  EXPECT_EQ(c.cmd("NOOP"), "200 NOOP command successful.\r\n");  // nothing left over
  // NLST announces ASCII whatever the type, and leaves the type as it was.
  EXPECT_EQ(c.cmd("TYPE I"), "200 Type set to I\r\n");
  EXPECT_EQ(list(c, "NLST sub").first, "150 Opening ASCII connection for /sub\r\n");
  EXPECT_EQ(list(c, "LIST sub").first, "150 Opening BINARY connection for /sub\r\n");
}

TEST(Listing, WindowsLayout) {
  Server s("\tglobal_style \"windows\"\n", "");
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_EQ(login(c, s.ftp_port()), "230 Anonymous access granted, restrictions apply.anonymous\r\n");
  Listing r = list(c, "LIST");
  EXPECT_EQ(r.data,
            "02-03-20  04:05AM                    5 a.txt\r\n"
            "02-03-20  04:05AM                 1234 b.bin\r\n"
            "02-03-20  04:05AM       <DIR>          empty\r\n"
            "02-03-20  04:05AM       <DIR>          sub\r\n");
  EXPECT_EQ(r.last, kDone);
}

TEST(Listing, RecursiveUnderUnixList) {
  Server s("\tunix_list \"true\"\n", "");
  s.file("pub/sub/deeper/d.txt", std::string(3000, 'd'), 0644);
  s.dir("pub/sub/deeper", 0755);
  s.dir("pub/sub", 0755);
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_EQ(login(c, s.ftp_port()), "230 Anonymous access granted, restrictions apply.anonymous\r\n");
  Listing r = list(c, "LIST -R sub");
  // This scan shows "." and ".." on each level. Each level below the top has
  // a heading with its total in kilobytes, and its lines show the size of
  // the last top-level entry.
  const long long last = s.size("pub/sub/deeper");
  const std::string top = unix_line("drwxr-xr-x", s.links("pub/sub"), s.size("pub/sub"), ".") +
                          unix_line("drwxr-xr-x", s.links("pub"), s.size("pub"), "..") +
                          unix_line("-rw-r--r--", 1, 10, "c.txt") +
                          unix_line("drwxr-xr-x", 2, last, "deeper");
  EXPECT_EQ(r.data, top + "\r\nsub/deeper:\r\ntotal 3\r\n" + unix_line("drwxr-xr-x", 2, last, ".") +
                        unix_line("drwxr-xr-x", s.links("pub/sub"), last, "..") +
                        unix_line("-rw-r--r--", 1, last, "d.txt"));
  EXPECT_EQ(r.last, kDone);
  EXPECT_EQ(list(c, "LIST sub").data, top);  // without -R the same scan stays on one level
}

TEST(Listing, BigDirectoryArrivesWholeAndInOrder) {
  Server s("", "");
  // Long names, so that few files (slow to create) still fill several of
  // the listing's gathered writes.
  constexpr int kFiles = 1500;
  auto name = [](int i) {
    char head[16];
    snprintf(head, sizeof head, "f%05d", i);
    return head + std::string(170, 'n');
  };
  for (int i = 0; i < kFiles; ++i) std::ofstream(s.path("pub/empty/" + name(i))) << "";
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_EQ(login(c, s.ftp_port()), "230 Anonymous access granted, restrictions apply.anonymous\r\n");
  Listing r = list(c, "LIST empty");
  EXPECT_EQ(r.last, kDone);
  ASSERT_GT(r.data.size(), 300000u);
  size_t at = 0;
  for (int i = 0; i < kFiles; ++i) {
    size_t eol = r.data.find("\r\n", at);
    ASSERT_NE(eol, std::string::npos) << "line " << i << " is missing";
    std::string want = " " + name(i);
    ASSERT_EQ(r.data.compare(eol - want.size(), want.size(), want), 0) << r.data.substr(at, eol - at);
    at = eol + 2;
  }
  EXPECT_EQ(at, r.data.size());
}

}  // namespace
}  // namespace korv::test
