// The session logs: each line in its domain's directory, the stream following
// the domain, the line format, size rolls with one old generation, the cut of
// long lines, and the daily roll of the transfer log.
#include "server/ftp/plog.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "common/emsg.h"
#include "common/emsg_files.h"
#include "common/mutex.h"
#include "server/session/link.h"
#include "server/settings/ini.h"

namespace korv {
namespace {

std::string slurp(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class PlogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    // Log paths are lower-cased whole, so the directory's name has no letters
    // of its own that could change.
    static int n = 0;
    dir_ = "/tmp/plog_test_" + std::to_string(getpid()) + "_" + std::to_string(n++);
    ASSERT_EQ(mkdir(dir_.c_str(), 0700), 0);
    emsg_open((dir_ + "/korvane.log").c_str());
    load("");
  }
  void TearDown() override {
    plog_flush_all();
    set_fx_log_flush(0);
    ini_free_all();
    emsg_open("");
    EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
  }
  void load(const std::string& extra) {
    ini_free_all();
    std::string path = dir_ + "/k.ini";
    std::ofstream(path) << "global_settings\n home \"" << dir_ << "\"\n log_home \"" << dir_ << "/Logs\"\n"
                        << extra << "vdomain address=\"10.0.0.1\" name=\"First\"\n"
                        << "vdomain address=\"10.0.0.2\" name=\"Second\"\n";
    ASSERT_EQ(ini_read("korvane", path.c_str()), 1);
  }
  // A session of the domain at `myip`.
  void session(Link& l, const char* myip, const char* ipname, const char* user) {
    ASSERT_EQ(ini_setdomain(&l, myip), 1);
    l.ipname = ipname;
    l.ipnum = ipname;
    l.user = user;
  }
  std::string logs(const char* domain, const char* file) { return dir_ + "/logs/" + domain + "/" + file; }
  std::string dir_;
};

TEST_F(PlogTest, LinesGoToTheWritersDomainWithTheirFormats) {
  Link a;
  Link b;
  session(a, "10.0.0.1", "1.2.3.4", "ann");
  session(b, "10.0.0.2", "5.6.7.8", "bob");
  // Writers alternate, so each log's stream closes and opens at each change.
  plog(&a, "<-- %s\n", "NOOP");
  plog(&b, "<-- %s\n", "SYST");
  plog(&a, "<-- %s\n", "QUIT");
  login_log(&b, "Time=%d User=%s IP=%s\n", 7, "bob", "5.6.7.8");
  xlog(&a, "%d %s\n", 3, "1.2.3.4 100 \"/f\" b _ o r ann \"ann\" 0 * c");
  ASSERT_EQ(plog_flush_all(), 1);

  const std::string stamp = "\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d\\d: ";
  EXPECT_TRUE(std::regex_match(slurp(logs("first", "cmds.log")),
                               std::regex(stamp + "1\\.2\\.3\\.4 ann <-- NOOP\n" + stamp + "1\\.2\\.3\\.4 ann <-- QUIT\n")))
      << slurp(logs("first", "cmds.log"));
  EXPECT_TRUE(std::regex_match(slurp(logs("second", "cmds.log")),
                               std::regex(stamp + "5\\.6\\.7\\.8 bob <-- SYST\n")));
  EXPECT_TRUE(std::regex_match(slurp(logs("second", "login.log")),
                               std::regex(stamp + "5\\.6\\.7\\.8 bob Time=7 User=bob IP=5\\.6\\.7\\.8\n")));
  // The transfer line: the 24-character ctime stamp, then the line as given.
  EXPECT_TRUE(std::regex_match(slurp(logs("first", "xfer.log")),
                               std::regex("\\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4} 3 1\\.2\\.3\\.4 100 "
                                          "\"/f\" b _ o r ann \"ann\" 0 \\* c\n")))
      << slurp(logs("first", "xfer.log"));
  // Every command line is also copied to the main log.
  emsg_flush();
  EXPECT_NE(slurp(dir_ + "/korvane.log").find("1.2.3.4 ann <-- QUIT"), std::string::npos);
}

TEST_F(PlogTest, SizeRollsKeepOneOldGeneration) {
  struct Case {
    const char* extra;
    const char* file;
    const char* old;
    int line_bytes;
    int lines;
  } cases[] = {
      {" log_cmd_size \"1k\"\n", "cmds.log", "cmds.log2", 100, 25},  // rolls past 1024 bytes
      {"", "login.log", "login.log_2", 900, 500},                      // a fixed 200000 bytes
  };
  for (const auto& c : cases) {
    load(c.extra);
    Link a;
    session(a, "10.0.0.1", "1.2.3.4", "ann");
    std::string filler(static_cast<size_t>(c.line_bytes), 'z');
    for (int i = 0; i < c.lines; i++) {
      if (std::string(c.file) == "cmds.log") {
        plog(&a, "%04d %s\n", i, filler.c_str());
      } else {
        login_log(&a, "%04d %s\n", i, filler.c_str());
      }
    }
    plog_flush_all();
    std::string cur = slurp(logs("first", c.file));
    std::string old = slurp(logs("first", c.old));
    EXPECT_FALSE(old.empty()) << c.file;
    // The newest line is in the current file, and the old file ends where it begins.
    EXPECT_NE(cur.find(std::to_string(c.lines - 1) + " z"), std::string::npos) << c.file;
    EXPECT_EQ(old.find(std::to_string(c.lines - 1) + " z"), std::string::npos) << c.file;
  }
}

TEST_F(PlogTest, LongLineIsCutNotRefused) {
  Link a;
  session(a, "10.0.0.1", "h", "u");
  xlog(&a, "%s\n", std::string(1500, 'q').c_str());
  plog_flush_all();
  EXPECT_EQ(slurp(logs("first", "xfer.log")).substr(25), std::string(500, 'q'));  // "%.500s" of the cut text
  emsg_flush();
  EXPECT_NE(slurp(dir_ + "/korvane.log").find("FATAL, INMSG ERROR TOO LONG"), std::string::npos);
}

TEST_F(PlogTest, DailyRollDatesTheLogAndRemovesTheOldest) {
  const time_t now = time(nullptr);
  for (int max_age : {0, 3}) {
    int days = max_age == 0 ? 30 : max_age;
    std::string path = logs("second", "xfer.log");
    std::string dated_keep = emsg_fname_date_at(path, now - static_cast<time_t>(days - 1) * 86400, now);
    std::string dated_old = emsg_fname_date_at(path, now - static_cast<time_t>(days) * 86400, now);
    std::string dated_older = emsg_fname_date_at(path, now - static_cast<time_t>(days + 1) * 86400, now);
    ASSERT_EQ(system(("mkdir -p '" + dir_ + "/logs/second'").c_str()), 0);
    for (const auto& f : {path, dated_keep, dated_old, dated_older}) std::ofstream(f) << f;
    ASSERT_EQ(xlog_rotate_one_at("Second", max_age, now), 1);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(slurp(emsg_fname_date_at(path, now - 86400, now)), path) << max_age;
    EXPECT_TRUE(exists(dated_keep)) << max_age;
    EXPECT_FALSE(exists(dated_old)) << max_age;
    EXPECT_FALSE(exists(dated_older)) << max_age;
  }
  // The roll of all domains closes the stream first, so the next line starts a fresh file.
  Link b;
  session(b, "10.0.0.2", "h", "u");
  xlog(&b, "before\n");
  ASSERT_EQ(xlog_rotate_all(), 1);
  xlog(&b, "after\n");
  xlog_flush();
  EXPECT_EQ(slurp(logs("second", "xfer.log")).substr(25), "after\n");
}

}  // namespace
}  // namespace korv
