// Directory listings end to end: exact bytes of LIST and NLST replies and
// lines over passive data connections, aliases first, wild-cards, empty,
// missing and hidden names, the recursive form, STAT on the control channel,
// and a listing that takes several gathered writes.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <tuple>

#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

constexpr time_t kFeb3 = 1580702700;  // 2020-02-03 04:05 UTC: an old year shows no time

// pub/{a.txt, b.bin, empty/, sub/c.txt} and elsewhere/x, all dated kFeb3.
struct Server : KorvServer {
  Server(const std::string& global, const std::string& cls) : KorvServer(basic_config(global) + cls) {
    setenv("TZ", "UTC", 1);  // the server inherits it
    for (auto [name, size, mode] : {std::tuple{"pub/a.txt", 5, 0644}, {"pub/b.bin", 1234, 0600},
                                    {"pub/sub/c.txt", 10, 0644}, {"elsewhere/x", 1, 0644}})
      file(name, std::string(size, 'x'), mode);
    for (const char* d : {"pub/empty", "pub/sub", "pub"}) dir(d);
  }
  void file(const std::string& name, const std::string& text, mode_t mode) {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    std::ofstream(path(name)) << text;
    stamp(name, mode);
  }
  void dir(const std::string& name) {
    std::filesystem::create_directories(path(name));
    stamp(name, 0755);
  }
  void stamp(const std::string& name, mode_t mode) {
    chmod(path(name).c_str(), mode);
    struct utimbuf t {kFeb3, kFeb3};
    utime(path(name).c_str(), &t);
  }
  struct stat st(const std::string& name) {
    struct stat st {};
    stat(path(name).c_str(), &st);
    return st;
  }
};

// The Unix line of an entry owned by this test's user, dated kFeb3.
std::string unix_line(const char* mode, long long links, long long size, const std::string& name) {
  char bf[600];
  snprintf(bf, sizeof bf, "%s %3lld %-8s %-8s %8lld Feb  3  2020 %s\r\n", mode, links,
           getpwuid(getuid())->pw_name, getgrgid(getgid())->gr_name, size, name.c_str());
  return bf;
}

// A control connection logged in anonymously.
struct Session : FtpClient {
  explicit Session(int port) {
    EXPECT_TRUE(connect(port));
    reply();
    cmd("USER anonymous");
    EXPECT_EQ(cmd("PASS me@example.org"), "230 Anonymous access granted, restrictions apply.anonymous\r\n");
  }
};

struct Listing {
  std::string first, data, last;
};

// PASV, a data connection, then `line`: the first reply, the data bytes and
// the closing reply (both empty unless the first is 150).
Listing list(FtpClient& c, const std::string& line) {
  Listing r;
  unsigned h[4], p1, p2;
  std::string pasv = c.cmd("PASV");
  FtpClient d;
  if (sscanf(pasv.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h[0], &h[1], &h[2], &h[3],
             &p1, &p2) != 6 || !d.connect(static_cast<int>(p1 * 256 + p2)))
    return {pasv, "", ""};
  r.first = c.cmd(line);
  if (r.first.compare(0, 3, "150") != 0) return r;
  r.data = d.read_raw(20000, size_t{1} << 24);
  r.last = c.reply();
  return r;
}

const std::string kDone = "226 Transfer complete. \r\n";

TEST(Listing, RepliesAndLines) {
  Server s("", "\t\tlist_aliases \"true\"\n"
               "\t\tdir alias=\"/virt/inner\" path=\"@HOME@/elsewhere\" read=\"true\"\n"
               "\t\tdir alias=\"/secret\" path=\"@HOME@/pub/sub\" read=\"true\" nolist=\"true\"\n");
  ASSERT_TRUE(s.start());
  Session c(s.ftp_port());
  // Aliases first, one level down, read-only, sized 4096 and dated now; then
  // the sorted entries.
  Listing all = list(c, "LIST");
  EXPECT_EQ(all.first, "150 Opening ASCII connection for /\r\n");
  const std::string alias = "dr-xr-xr-x   2 root     root         4096 [A-Z][a-z]{2} [ 0-9]{2} [ 0-9]{2}:[0-9]{2} ";
  std::smatch m;
  ASSERT_TRUE(std::regex_search(all.data, m, std::regex("^" + alias + "virt\r\n" + alias + "secret\r\n")));
  size_t at = m.length(0);
  const std::string a = unix_line("-rw-r--r--", 1, 5, "a.txt"), c_txt = unix_line("-rw-r--r--", 1, 10, "c.txt");
  const std::string b = unix_line("-rw-------", 1, 1234, "b.bin");
  EXPECT_EQ(all.data.substr(at), a + b + unix_line("drwxr-xr-x", 2, s.st("pub/empty").st_size, "empty") +
                                     unix_line("drwxr-xr-x", 2, s.st("pub/sub").st_size, "sub"));
  EXPECT_EQ(all.last, kDone);

  const std::string opening = "150 Opening ASCII connection for ";
  const struct {
    const char* line;
    std::string first, data, last;
  } cases[] = {
      {"LIST *.txt", opening + "/*.txt\r\n", a, kDone},
      {"LIST *.zzz", opening + "/*.zzz\r\n", "", "226 Transfer complete. Nothing found (*.zzz)\r\n"},
      {"LIST missing", "550 File or Directory does not exist (/missing)\r\n", "", ""},
      {"LIST empty", opening + "/empty\r\n", "", "226 Transfer complete. (no files in directory).\r\n"},
      {"LIST -la sub", opening + "/sub\r\n", c_txt, kDone},
      {"LIST sub/c.txt", opening + "/sub/c.txt\r\n", c_txt, kDone},
      {"LIST /virt/inner", opening + "/virt/inner\r\n", unix_line("-rw-r--r--", 1, 1, "x"), kDone},
      {"LIST /secret", opening + "/secret\r\n", "", "226 Transfer complete. Virtual list access denied (/secret)\r\n"},
      {"LIST ../..", "550 Cant figure out alias's (Invalid virtual path)\r\n", "", ""},
      {"NLST", opening + "/\r\n", "a.txt\r\nb.bin\r\nempty\r\nsub\r\n", kDone},
      {"NLST sub -a", opening + "/sub\r\n", "sub/c.txt\r\n", kDone},
      {"NLST -l *.bin", opening + "/*.bin\r\n", b, kDone},
  };
  for (const auto& k : cases) {
    Listing r = list(c, k.line);
    EXPECT_EQ(r.first + r.data + r.last, k.first + k.data + k.last) << k.line;
  }
  EXPECT_EQ(c.cmd("STAT sub"), "213-status of sub:\r\n" + c_txt + "213 End of status\r\n");
  // NLST announces ASCII whatever the type, and leaves the type as it was.
  EXPECT_EQ(c.cmd("TYPE I"), "200 Type set to I\r\n");
  EXPECT_EQ(list(c, "NLST sub").first, opening + "/sub\r\n");
  EXPECT_EQ(list(c, "LIST sub").first, "150 Opening BINARY connection for /sub\r\n");
}

TEST(Listing, RecursiveUnderUnixList) {
  Server s("\tunix_list \"true\"\n", "");
  s.file("pub/sub/deeper/d.txt", std::string(3000, 'd'), 0644);
  s.dir("pub/sub/deeper");
  s.dir("pub/sub");
  ASSERT_TRUE(s.start());
  Session c(s.ftp_port());
  // The recursive form leaves out "." and "..". Each level below the top has
  // a heading with its total in kilobytes, and its lines show the size of
  // the last top-level entry.
  const long long last = s.st("pub/sub/deeper").st_size, sub_links = s.st("pub/sub").st_nlink;
  const std::string top = unix_line("-rw-r--r--", 1, 10, "c.txt") + unix_line("drwxr-xr-x", 2, last, "deeper");
  Listing r = list(c, "LIST -R sub");
  EXPECT_EQ(r.data, top + "\r\nsub/deeper:\r\ntotal 3\r\n" + unix_line("-rw-r--r--", 1, last, "d.txt"));
  EXPECT_EQ(r.last, kDone);
  // Without -R the same scan stays on one level, and shows "." and "..".
  EXPECT_EQ(list(c, "LIST sub").data, unix_line("drwxr-xr-x", sub_links, s.st("pub/sub").st_size, ".") +
                                          unix_line("drwxr-xr-x", s.st("pub").st_nlink, s.st("pub").st_size, "..") + top);
}

TEST(Listing, BigDirectoryArrivesWholeAndInOrder) {
  Server s("", "");
  // Long names, so that few files (slow to create) fill several gathered writes.
  constexpr int kFiles = 1500;
  auto name = [](int i) { return std::to_string(100000 + i) + std::string(170, 'n'); };
  for (int i = 0; i < kFiles; ++i) std::ofstream(s.path("pub/empty/" + name(i))) << "";
  ASSERT_TRUE(s.start());
  Session c(s.ftp_port());
  Listing r = list(c, "LIST empty");
  EXPECT_EQ(r.last, kDone);
  std::string names;  // the last word of each line, in order
  for (size_t at = 0, eol; (eol = r.data.find("\r\n", at)) != std::string::npos; at = eol + 2)
    names += r.data.substr(r.data.rfind(' ', eol) + 1, eol - r.data.rfind(' ', eol) - 1) + "|";
  std::string want;
  for (int i = 0; i < kFiles; ++i) want += name(i) + "|";
  EXPECT_GT(r.data.size(), 300000u);
  EXPECT_TRUE(names == want) << "lines lost, cut or out of order";
}

}  // namespace
}  // namespace korv::test
