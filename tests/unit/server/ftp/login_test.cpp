// The /etc/ftpusers match: exact lines, long lines in 999-byte pieces, and a
// missing file that refuses nobody.
#include "server/ftp/login.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/support/certs.h"

namespace korv {
namespace {

TEST(Login, FtpusersMatchesWholeLinesOnly) {
  test::TempDir dir("korv-login");
  std::string file = dir.file("ftpusers");
  std::string long_name(kFtpusersLineMax + 5, 'x');
  std::ofstream(file) << "# root\nroot\n\ndaemon \n" << long_name << "\nlast";  // no final line feed
  const struct {
    const char* user;
    int want;
  } cases[] = {
      {"root", 1},    {"ROOT", 0},   {"# root", 1},  // a comment is an ordinary line
      {"daemon", 0},  {"daemon ", 1}, {"", 1},       // the blank line
      {"last", 1},    {"roo", 0},
      {"xxxxx", 1},   // the piece after the first 999 bytes of the long line
  };
  for (const auto& c : cases) EXPECT_EQ(isin_ftpusers_file(file.c_str(), c.user), c.want) << "[" << c.user << "]";
  EXPECT_EQ(isin_ftpusers_file(file.c_str(), long_name.c_str()), 0);
  EXPECT_EQ(isin_ftpusers_file(dir.file("missing").c_str(), "root"), 0);
}

}  // namespace
}  // namespace korv
