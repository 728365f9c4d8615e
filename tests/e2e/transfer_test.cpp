// Transfers end to end over passive data connections: the replies of TYPE,
// MODE, REST, RETR, STOR, APPE and STOU byte for byte, files compared byte for
// byte both ways, resumed transfers (also past 4 GiB in a sparse file), ASCII
// and block mode, the refusals, ABOR in the middle of a slow download and
// upload, the per-address daily limit, the transfer log and the watcher.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "base/str.h"
#include "tests/support/korv_server.h"
#include "tests/support/texts.h"
#include "tests/support/xfer.h"

namespace korv::test {
namespace {

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

// Anonymous sessions: "/" is pub/ (read only), "/up" is up/ (read and write);
// `cls` adds lines to the class and `global` to the global settings. The
// files are the test's own: the sessions keep the server's identity.
struct Server : KorvServer {
  explicit Server(const std::string& cls = "", const std::string& global = "")
      : KorvServer(KorvServer::basic_config("\tglobal_log_flush \"true\"\n" + global) +
                   "\t\tdir alias=\"/up\" path=\"@HOME@/up\" read=\"true\" write=\"true\"\n"
                   "\t\tuser_noimpersonate \"true\"\n" + cls) {
    std::filesystem::create_directories(path("pub/sub"));
    std::filesystem::create_directories(path("up"));
  }
  void put(const std::string& name, const std::string& bytes) {
    std::ofstream(path(name), std::ios::binary) << bytes;
  }
  std::string get(const std::string& name) { return slurp(path(name)); }
};

struct Session : FtpClient {
  explicit Session(const Server& s) {
    EXPECT_TRUE(connect(s.ftp_port()));
    reply();
    cmd("USER anonymous");
    EXPECT_EQ(cmd("PASS me@example.org").substr(0, 4), "230 ");
  }
};

// Opens a passive data connection; -1 on failure.
std::unique_ptr<FtpClient> pasv(FtpClient& c) {
  std::string r = c.cmd("PASV");
  unsigned h1, h2, h3, h4, p1, p2;
  if (sscanf(r.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h1, &h2, &h3, &h4, &p1, &p2) != 6) {
    ADD_FAILURE() << r;
    return nullptr;
  }
  auto d = std::make_unique<FtpClient>();
  EXPECT_TRUE(d->connect(static_cast<int>(p1 * 256 + p2)));
  return d;
}

TEST(Transfer, SettingReplies) {
  Server s;
  ASSERT_TRUE(s.start());
  Session c(s);
  const struct {
    const char *line, *want;
  } cases[] = {
      {"TYPE a", "200 Type set to A\r\n"},
      {"TYPE I", "200 Type set to I\r\n"},
      {"TYPE L 8", "500 Type setting not understood (L 8)\r\n"},
      {"MODE S", "200 Mode s ok.\r\n"},
      {"MODE b", "200 Mode b ok.\r\n"},
      {"MODE C", "200 Mode c ok.\r\n"},
      {"MODE Zip", "504 Mode zip not supported\r\n"},
      {"REST 5000000000", "350 Restarting at 5000000000.\r\n"},
      {"REST x", "350 Restarting at 0.\r\n"},
  };
  for (const auto& k : cases) EXPECT_EQ(c.cmd(k.line), k.want) << k.line;
}

TEST(Transfer, BinaryBothWaysResumedAndRefused) {
  Server s("\t\tnoretrieve \"*.secret\"\n\t\tnoupload \"*.exe\"\n");
  const std::string big = random_bytes(3000000, 7);
  s.put("pub/big.bin", big);
  s.put("pub/x.secret", "s");
  ASSERT_TRUE(s.start());
  Session c(s);
  c.cmd("TYPE I");

  Xfer x = run(c, "RETR big.bin");
  EXPECT_EQ(x.first, "150 Opening BINARY connection for big.bin\r\n");
  EXPECT_EQ(x.last, "226 Transfer complete.\r\n");
  EXPECT_TRUE(x.data == big) << x.data.size();

  EXPECT_EQ(run(c, "STOR /up/copy.bin", &big).last, "226 Transfer complete. /up/copy.bin\r\n");
  EXPECT_TRUE(s.get("up/copy.bin") == big);

  // A resumed download starts at the offset; the offset is used once.
  c.cmd("REST 2999000");
  EXPECT_TRUE(run(c, "RETR big.bin").data == big.substr(2999000));
  EXPECT_EQ(run(c, "RETR big.bin").data.size(), big.size());

  // A resumed upload writes into the existing file from the offset.
  s.put("up/r.txt", "abcdef");
  c.cmd("REST 2");
  const std::string xy = "XY";
  EXPECT_EQ(run(c, "STOR /up/r.txt", &xy).last, "226 Transfer complete. /up/r.txt\r\n");
  EXPECT_EQ(s.get("up/r.txt"), "abXYef");

  // STOU keeps a free name and numbers a taken one.
  const std::string z = "z";
  EXPECT_EQ(run(c, "STOU /up/u", &z).last, "226 Transfer complete (unique file name:/up/u).\r\n");
  EXPECT_EQ(run(c, "STOU /up/u", &z).last, "226 Transfer complete (unique file name:/up/u.1).\r\n");

  // After one APPE every STOR of the session appends.
  const std::string more = "++";
  EXPECT_EQ(run(c, "APPE /up/r.txt", &more).last, "226 Transfer complete. /up/r.txt\r\n");
  EXPECT_EQ(run(c, "STOR /up/r.txt", &more).last, "226 Transfer complete. /up/r.txt\r\n");
  EXPECT_EQ(s.get("up/r.txt"), "abXYef++++");

  const struct {
    std::string line, want;
  } refusals[] = {
      {"RETR nope", "550 nope: Cannot open file No such file or directory\r\n"},
      {"RETR sub", "550 sub: not a plain file\r\n"},
      {"RETR x.secret", "550 x.secret: Cannot retrieve file for security reasons\r\n"},
      {"STOR x", "550 x: Virtual write access denied (/x)\r\n"},
      {"STOR /up/a.exe", "550 /up/a.exe: Cannot allow upload of file for security reasons\r\n"},
      {"STOR /up/no/dir/f", "550 /up/no/dir/f: OS & File System Error: (/up/no/dir/f) No such file or directory\r\n"},
      {"STOR /up/" + std::string(400, 'n'), ""},
  };
  for (const auto& k : refusals) {
    std::string want = k.want;
    if (want.empty()) want = "501 " + k.line.substr(5) + ": Max path length exceeded 398\r\n";
    EXPECT_EQ(c.cmd(k.line), want) << k.line;
  }
  s.check_clean();
}

TEST(Transfer, SparseFileReadPastFourGiB) {
  Server s;
  const long long at = 5000000000LL;
  {
    std::ofstream f(s.path("pub/sparse"), std::ios::binary);
    f.seekp(at);
    f << "0123456789";
  }
  ASSERT_TRUE(s.start());
  Session c(s);
  c.cmd("TYPE I");
  EXPECT_EQ(c.cmd("REST 5000000004"), "350 Restarting at 5000000004.\r\n");
  Xfer x = run(c, "RETR sparse");
  EXPECT_EQ(x.data, "456789");
  EXPECT_EQ(x.last, "226 Transfer complete.\r\n");
}

TEST(Transfer, AsciiAndBlockMode) {
  Server s;
  s.put("pub/t.txt", "one\ntwo\r\nthree");
  const std::string b70 = random_bytes(70000, 3);
  s.put("pub/b70", b70);
  ASSERT_TRUE(s.start());
  Session c(s);

  // TYPE starts as ASCII: every LF gets a CR, one after a CR too.
  Xfer x = run(c, "RETR t.txt");
  EXPECT_EQ(x.first, "150 Opening ASCII connection for t.txt\r\n");
  EXPECT_EQ(x.data, "one\r\ntwo\r\r\nthree");
  const std::string crlf = "a\r\nb\r\n\r";
  run(c, "STOR /up/a.txt", &crlf);
  EXPECT_EQ(s.get("up/a.txt"), "a\nb\n\r");

  // REST does not apply to an ASCII download; it waits for the next binary one.
  c.cmd("REST 4");
  EXPECT_EQ(run(c, "RETR t.txt").data, "one\r\ntwo\r\r\nthree");
  c.cmd("TYPE I");
  EXPECT_EQ(run(c, "RETR t.txt").data, "two\r\nthree");

  // Block mode: a three-byte header per block, the last one marked 0x40.
  c.cmd("MODE B");
  x = run(c, "RETR b70");
  std::string want = std::string("\x00\xff\xff", 3) + b70.substr(0, 65535) + std::string("\x40\x11\x71", 3) +
                     b70.substr(65535);
  EXPECT_TRUE(x.data == want) << x.data.size();
  EXPECT_EQ(x.last, "226 Transfer complete.\r\n");
  const std::string blocks = std::string("\x00\x00\x03" "abc" "\x40\x00\x02" "de", 11);
  EXPECT_EQ(run(c, "STOR /up/blk", &blocks).last, "226 Transfer complete. /up/blk\r\n");
  EXPECT_EQ(s.get("up/blk"), "abcde");
}

TEST(Transfer, AbortMidTransferUnderSpeedLimits) {
  // 10 KB a second each way: the files below would take minutes.
  Server s("\t\tlimit_speed \"10\"\n\t\tlimit_speed_up \"10\"\n");
  const std::string big = random_bytes(2000000, 11);
  s.put("pub/big.bin", big);
  ASSERT_TRUE(s.start());
  Session c(s);
  c.cmd("TYPE I");

  auto d = pasv(c);
  ASSERT_TRUE(d);
  EXPECT_EQ(c.cmd("RETR big.bin"), "150 Opening BINARY connection for big.bin\r\n");
  std::string got = d->read_raw(10000, 1);  // the transfer is moving
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(c.send_line("ABOR"));
  EXPECT_EQ(c.reply(20000), "426 ABORT command received.\r\n");
  EXPECT_EQ(c.reply(), "226 Abort successful\r\n");
  got += d->read_raw(10000, big.size());
  // Held to the limit, the download had sent only a small part.
  EXPECT_LT(got.size(), big.size() / 4);
  EXPECT_TRUE(big.compare(0, got.size(), got) == 0);

  d = pasv(c);
  ASSERT_TRUE(d);
  EXPECT_EQ(c.cmd("STOR /up/slow.bin"), "150 Opening BINARY connection for /up/slow.bin\r\n");
  // Little enough to sit in the socket buffers while the server reads slowly.
  EXPECT_TRUE(d->send_raw(big.substr(0, 100000)));
  EXPECT_TRUE(c.send_line("ABOR"));
  EXPECT_EQ(c.reply(20000), "426 Transfer failed. /up/slow.bin ABORT command received\r\n");
  EXPECT_EQ(c.reply(), "226 Abort successful\r\n");
  std::string part = s.get("up/slow.bin");
  EXPECT_LT(part.size(), 100000u);  // the partial file stays
  EXPECT_TRUE(big.compare(0, part.size(), part) == 0);
  EXPECT_EQ(c.cmd("NOOP"), "200 NOOP command successful.\r\n");
  s.check_clean();
}

TEST(Transfer, DailyAddressLimitTransferLogAndWatcher) {
  Server s("\t\tlimit_mb \"1\"\n",
           "\tglobal_watcher_program_ul \"@HOME@/watch.sh\"\n");
  const std::string mb = random_bytes(1000000, 5);
  s.put("pub/mb.bin", mb);
  s.put("watch.sh", "#!/bin/sh\necho \"$@\" > \"$(dirname \"$0\")/watch.out\"\n");
  chmod(s.path("watch.sh").c_str(), 0755);
  ASSERT_TRUE(s.start());
  Session c(s);
  c.cmd("TYPE I");
  EXPECT_EQ(run(c, "RETR mb.bin").last, "226 Transfer complete.\r\n");
  // The address has now had its megabyte for the day.
  EXPECT_EQ(c.cmd("RETR mb.bin"), "550 mb.bin: Cannot retrieve file as daily download limit exceeded\r\n");

  const std::string five = "12345";
  EXPECT_EQ(run(c, "STOR /up/w.bin", &five).last, "226 Transfer complete. /up/w.bin\r\n");
  // The watcher has ended before the reply; each value is one argument.
  EXPECT_EQ(s.get("watch.out"),
            "file=" + s.path("up/w.bin") + " bytes=5 user=anonymous userip=127.0.0.1 transfer=uploaded\n");

  // The log line follows the reply; once NOOP is answered the session has written it.
  EXPECT_EQ(c.cmd("NOOP"), "200 NOOP command successful.\r\n");
  std::string log = slurp(str_lower(s.dir()) + "/test/xfer.log");
  std::istringstream lines(log);
  std::string line;
  std::vector<std::string> tails;
  while (std::getline(lines, line)) {
    ASSERT_GT(line.size(), 25u) << line;
    tails.push_back(line.substr(25));  // after the 24-character stamp and a blank
  }
  ASSERT_EQ(tails.size(), 2u) << log;
  const std::string tail = " \"me@example.org\" 0 * c";
  EXPECT_EQ(tails[0].substr(tails[0].find(' ')),
            " 127.0.0.1 1000000 \"" + s.path("pub/mb.bin") + "\" b _ o a anonymous" + tail);
  EXPECT_EQ(tails[1].substr(tails[1].find(' ')),
            " 127.0.0.1 5 \"" + s.path("up/w.bin") + "\" b _ i a anonymous" + tail);
  s.check_clean();
}

}  // namespace
}  // namespace korv::test
