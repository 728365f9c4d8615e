// Machine listings end to end: OPTS MLST and FEAT, MLST on the control
// channel (files, directories, links, length and existence refusals), MLSD
// lines with the aliases after them, and Python's ftplib reading MLSD.
#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>

#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

struct Server : KorvServer {
  explicit Server(const std::string& cls) : KorvServer(basic_config("") + cls) {
    std::filesystem::create_directories(path("pub/sub"));
    std::ofstream(path("pub/a.txt")) << "hello";
    chmod(path("pub/a.txt").c_str(), 0644);
    chmod(path("pub/sub").c_str(), 0755);
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
  Session(int port, const std::string& user, const std::string& pass) {
    EXPECT_TRUE(connect(port));
    reply();
    cmd("USER " + user);
    std::string r = cmd("PASS " + pass);
    EXPECT_EQ(r.rfind("230", 0), 0u) << user << ": " << r;
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
                            ";perm=r;unix.mode=0644;unix.owner=[^;]+;unix.group=[^;]+;";
  std::string r = c.cmd("MLST a.txt");
  EXPECT_TRUE(std::regex_match(r, std::regex("250- Listing a.txt\r\n " + facts + " /a.txt\r\n250 End\r\n"))) << r;
  r = c.cmd("MLST sub");
  EXPECT_TRUE(std::regex_match(r, std::regex("250- Listing sub/\\*\r\n type=dir;[^ ]*perm=el;unix.mode=0755;[^ ]* /sub\r\n250 End\r\n"))) << r;
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
                                             "perm=el;unix.mode=0555;unix.owner=" + any + " virt\r\n"
                                             "226 MLSD complete. \r\n"))) << r;
  EXPECT_EQ(mlsd(c, "MLSD a.txt"), "501 a.txt: No such file or not a directory: Not a directory\r\n");
}

// perm and unix.mode for a file and a directory in each kind of area, the
// same through MLST and MLSD: anonymous under read alone, anonymous under
// read with nodel, and a module user in a writable home.
TEST(Facts, PermAndModeSayWhatThisUserMayDoThere) {
  KorvServer s(KorvServer::basic_config("\tauthent_process \"" KORV_BINARY_DIR "/omauth\"\n"
                                        "\tauthent_cmdopts \"-file @HOME@/users\"\n") +
               "\t\tdir alias=\"/ro\" path=\"@HOME@/ro\" read=\"true\" nodel=\"true\"\n"
               "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
               "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n");
  std::ofstream(s.path("users")) << "bob password=\"" << hash_of("pw") << "\"\n";
  const struct {
    const char* user;
    const char* area;  // virtual
    const char* real;  // below the server's home
    int file_mode, dir_mode;
    const char* file_facts;  // perm and unix.mode
    const char* dir_facts;
  } cases[] = {
      {"anonymous", "/", "pub", 0644, 0755, "perm=r;unix.mode=0644;", "perm=el;unix.mode=0755;"},
      {"anonymous", "/ro", "ro", 0640, 02755, "perm=r;unix.mode=0640;", "perm=el;unix.mode=02755;"},
      {"bob", "/", "home/bob", 04755, 01777, "perm=adfrw;unix.mode=04755;", "perm=cdeflmp;unix.mode=01777;"},
  };
  for (const auto& k : cases) {
    std::filesystem::create_directories(s.path(std::string(k.real) + "/d"));
    std::ofstream(s.path(std::string(k.real) + "/f")) << "12345";
    chmod(s.path(std::string(k.real) + "/f").c_str(), static_cast<mode_t>(k.file_mode));
    chmod(s.path(std::string(k.real) + "/d").c_str(), static_cast<mode_t>(k.dir_mode));
  }
  ASSERT_TRUE(s.start());
  const std::string times = "modify=[0-9]{14};create=[0-9]{14};unique=[0-9]+\\.[0-9]+;";
  const std::string owner = "unix\\.owner=[^;]+;unix\\.group=[^;]+;";
  for (const auto& k : cases) {
    SCOPED_TRACE(std::string(k.user) + " " + k.area);
    std::unique_ptr<Session> c = std::string(k.user) == "anonymous" ? std::make_unique<Session>(s.ftp_port())
                                                                     : std::make_unique<Session>(s.ftp_port(), k.user, "pw");
    const std::string dir = std::string(k.area) == "/" ? "" : k.area;
    const std::string file = "type=file;size=5;" + times + std::regex_replace(k.file_facts, std::regex("\\."), "\\.") + owner;
    const std::string sub = "type=dir;size=[0-9]+;" + times + std::regex_replace(k.dir_facts, std::regex("\\."), "\\.") + owner;
    std::string r = c->cmd("MLST " + dir + "/f");
    EXPECT_TRUE(std::regex_match(r, std::regex("250- Listing " + dir + "/f\r\n " + file + " " + dir + "/f\r\n250 End\r\n"))) << r;
    r = c->cmd("MLST " + dir + "/d");
    EXPECT_TRUE(std::regex_match(r, std::regex("250- Listing " + dir + "/d/\\*\r\n " + sub + " " + dir + "/d\r\n250 End\r\n"))) << r;
    if (!dir.empty()) c->cmd("CWD " + dir);
    r = mlsd(*c, "MLSD");
    EXPECT_TRUE(std::regex_search(r, std::regex("\r\n" + sub + " d\r\n"))) << r;
    EXPECT_TRUE(std::regex_search(r, std::regex("\r\n" + file + " f\r\n"))) << r;
  }
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
