// Machine listings end to end: OPTS MLST and FEAT, MLST on the control
// channel (files, directories, links, length and existence refusals), MLSD
// lines with the aliases after them, and Python's ftplib reading MLSD.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

struct Server : KorvServer {
  explicit Server(const std::string& cls) : KorvServer(basic_config("") + cls) {
    std::filesystem::create_directories(path("pub/sub"));
    std::ofstream(path("pub/a.txt")) << "hello";
    symlink("a.txt", path("pub/ln").c_str());
  }
  long long size_of(const std::string& name) const {
    struct stat st {};
    stat(path(name).c_str(), &st);
    return st.st_size;
  }
  long long link_size() const {
    struct stat st {};
    lstat(path("pub/ln").c_str(), &st);
    return st.st_size;
  }
};

struct Session : FtpClient {
  explicit Session(int port) {
    EXPECT_TRUE(connect(port));
    reply();
    cmd("USER anonymous");
    EXPECT_EQ(cmd("PASS me@example.org"), "230 Anonymous access granted, restrictions apply.anonymous\r\n");
  }
};

// PASV, then `line`: the first reply, the data and the closing reply.
std::string mlsd(FtpClient& c, const std::string& line) {
  unsigned h[4], p1, p2;
  std::string pasv = c.cmd("PASV");
  FtpClient d;
  if (sscanf(pasv.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h[0], &h[1], &h[2], &h[3],
             &p1, &p2) != 6 || !d.connect(static_cast<int>(p1 * 256 + p2)))
    return pasv;
  std::string first = c.cmd(line);
  if (first.compare(0, 3, "150") != 0) return first;
  std::string data = d.read_raw(20000);
  return first + data + c.reply();
}

const std::string kFeatFacts = " MLST type*,size*,modify*,create,unique*,perm,unix.mode,unix.owner,unix.group\r\n";

TEST(Facts, OptsMlstSelectsWhatFeatShowsButLinesStayWhole) {
  Server s("\t\tlist_aliases \"true\"\n\t\tdir alias=\"/virt\" path=\"@HOME@/pub/sub\" read=\"true\"\n");
  ASSERT_TRUE(s.start());
  Session c(s.ftp_port());
  EXPECT_NE(c.cmd("FEAT").find(kFeatFacts), std::string::npos);
  const struct {
    const char* line;
    const char* reply;
  } cases[] = {
      {"OPTS MLST size;type;", "200 MLST OPTS type,size\r\n"},
      {"OPTS MLST bad", "500 Invalid option (bad)\r\n"},
      {"OPTS mlst PERM", "200 MLST OPTS perm\r\n"},
      {"OPTS MLST", "200 MLST OPTS \r\n"},
  };
  for (const auto& k : cases) EXPECT_EQ(c.cmd(k.line), k.reply) << k.line;
  EXPECT_NE(c.cmd("FEAT").find(" MLST type,size,modify,create,unique,perm,unix.mode,unix.owner,unix.group\r\n"),
            std::string::npos);
  // A second session starts from the defaults.
  Session other(s.ftp_port());
  EXPECT_NE(other.cmd("FEAT").find(kFeatFacts), std::string::npos);

  struct stat st {};
  lstat(s.path("pub/a.txt").c_str(), &st);
  const std::string unique = std::to_string(static_cast<int>(st.st_dev)) + "." + std::to_string(static_cast<int>(st.st_ino));
  const std::string facts = "type=file;size=5;modify=[0-9]{14};create=[0-9]{14};unique=" + unique +
                            ";perm=r;unix.mode=-rw-r--r--;unix.owner=[^;]+;unix.group=[^;]+;";
  std::string r = c.cmd("MLST a.txt");
  EXPECT_TRUE(std::regex_match(r, std::regex("250- Listing a.txt\r\n " + facts + " /a.txt\r\n250 End\r\n"))) << r;
  r = c.cmd("MLST sub");
  EXPECT_TRUE(std::regex_match(r, std::regex("250- Listing sub/\\*\r\n type=dir;[^ ]*perm=cdeflmp;[^ ]* /sub\r\n250 End\r\n"))) << r;
  r = c.cmd("MLST ln");
  EXPECT_TRUE(std::regex_match(r, std::regex("250- Listing ln\r\n type=OS.unix=slink:a.txt;[^ ]* /ln\r\n250 End\r\n"))) << r;
  EXPECT_EQ(c.cmd("MLST nothere").rfind("501 nothere: File does not exist ", 0), 0u);
  // 397 characters go on (to the existence test), 398 are refused.
  EXPECT_EQ(c.cmd("MLST " + std::string(397, 'x')).rfind("501 " + std::string(397, 'x') + ": File does not exist", 0), 0u);
  EXPECT_EQ(c.cmd("MLST " + std::string(398, 'x')),
            "501 " + std::string(398, 'x') + ": Max path length exceeded 398\r\n");

  // MLSD: the real entries in order, then the alias, on the data connection.
  r = mlsd(c, "MLSD");
  const std::string any = "[^ \r\n]*";
  EXPECT_TRUE(std::regex_match(r, std::regex("150 Opening BINARY connection for /\r\n"
                                             + facts + " a.txt\r\n"
                                             "type=OS.unix=slink:a.txt;" + any + " ln\r\n"
                                             "type=dir;" + any + " sub\r\n"
                                             "type=dir;size=0;modify=[0-9]{14};create=19700101000000;unique=0.0;"
                                             "perm=cdeflmp;unix.mode=dr-xr-xr-x;unix.owner=" + any + " virt\r\n"
                                             "226 MLSD complete. \r\n"))) << r;
  EXPECT_EQ(mlsd(c, "MLSD a.txt"), "501 a.txt: No such file or not a directory: Not a directory\r\n");
}

std::string run(const std::string& command) {
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return "popen failed";
  std::string out;
  char bf[512];
  while (fgets(bf, sizeof bf, p) != nullptr) out += bf;
  int rc = pclose(p);
  return rc == 0 ? out : "exit " + std::to_string(rc) + ": " + out;
}

TEST(Facts, LftpAndFtplibReadMlsd) {
  Server s("");
  ASSERT_TRUE(s.start());
  // lftp lists through MLSD when FEAT offers MLST; "cls -1" prints its names.
  std::string cmd = "lftp -c 'set ftp:ssl-allow false; open -u anonymous,me@example.org ftp://127.0.0.1:" +
                    std::to_string(s.ftp_port()) + "; cls -1'";
  std::string out = run(cmd);
  EXPECT_TRUE(std::regex_search(out, std::regex("^a\\.txt.?\nln.?\nsub.?\n"))) << out;
  EXPECT_TRUE(s.wait_log("mlsd: ")) << "lftp did not list through MLSD";
  std::string script = "import ftplib\nf = ftplib.FTP()\nf.connect('127.0.0.1', " + std::to_string(s.ftp_port()) +
                       ")\nf.login('anonymous', 'me@example.org')\n"
                       "for name, facts in sorted(f.mlsd(facts=['type', 'size'])):\n"
                       "    print(name, facts['type'], facts.get('size'))\nf.quit()\n";
  std::ofstream(s.path("mlsd.py")) << script;
  out = run("python3 " + s.path("mlsd.py"));
  EXPECT_EQ(out, "a.txt file 5\nln OS.unix=slink:a.txt " + std::to_string(s.link_size()) + "\nsub dir " +
                     std::to_string(s.size_of("pub/sub")) + "\n");
}

}  // namespace
}  // namespace korv::test
