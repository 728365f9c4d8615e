// The control line framer: lines end only at CR LF, every split of the input
// gives the same lines, long lines are cut and unended floods dropped, and
// the abort poll finds ABOR in the unread bytes.
#include "server/ftpio.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/ini.h"
#include "server/link.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

// Feeds `pieces` as tcp_readmore and tcp_process would: append, take every
// complete line, compact. Returns the lines; `rest` gets the unread bytes.
std::vector<std::string> frame(const std::vector<std::string>& pieces, std::string* rest = nullptr) {
  LineBuf w;
  std::vector<std::string> lines;
  std::string line;
  for (const auto& piece : pieces) {
    w.append(piece.data(), static_cast<int>(piece.size()));
    while (w.next_line(line)) lines.push_back(line);
    w.compact();
    EXPECT_LE(w.inmax, kInGrowSize);
  }
  if (rest != nullptr) rest->assign(w.inbf ? w.inbf.get() : "", static_cast<size_t>(w.unread()));
  return lines;
}

struct FrameCase {
  std::string input;
  std::vector<std::string> lines;
  std::string rest;
};

TEST(FtpLineBuf, EverySplitGivesTheSameLines) {
  const std::string nul("NO\0OP\r\n", 7);
  const FrameCase cases[] = {
      {"NOOP\r\n", {"NOOP"}, ""},
      {"NOOP\nX\r\n", {"NOOP\nX"}, ""},            // a bare LF is part of the line
      {"\r\n\r\n", {"", ""}, ""},                   // blank lines are lines
      {"\n\r\n", {"\n"}, ""},
      {"A\r\rB\r\n", {"A\r\rB"}, ""},               // a bare CR too
      {"A\r\n\nB\r\n", {"A", "\nB"}, ""},           // the LF after CR LF starts the next line
      {"USER a b\r\nPASS x y\r\nNOOP", {"USER a b", "PASS x y"}, "NOOP"},
      {nul, {"NOOP"}, ""},                          // NUL bytes are dropped
      {"NOOP\r", {}, "NOOP\r"},
  };
  for (const auto& c : cases) {
    std::string rest;
    EXPECT_EQ(frame({c.input}, &rest), c.lines) << c.input;
    EXPECT_EQ(rest, c.rest) << c.input;
    for (size_t cut = 1; cut < c.input.size(); cut++) {
      EXPECT_EQ(frame({c.input.substr(0, cut), c.input.substr(cut)}, &rest), c.lines)
          << c.input << " cut at " << cut;
      EXPECT_EQ(rest, c.rest);
    }
    std::vector<std::string> bytes;
    for (char ch : c.input) bytes.emplace_back(1, ch);
    EXPECT_EQ(frame(bytes), c.lines) << c.input << " byte by byte";
  }
}

TEST(FtpLineBuf, LongLineIsCutAtTheDispatcherBound) {
  std::string big(1500, 'x');
  std::vector<std::string> lines = frame({"NOOP\r\n" + big + "\r\nSYST\r\n"});
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], std::string(kCmdLineMax, 'x'));
  EXPECT_EQ(lines[2], "SYST");
  // The cut counts the line's bytes, NULs included.
  std::string with_nuls = std::string(10, '\0') + std::string(1200, 'y') + "\r\n";
  lines = frame({with_nuls});
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], std::string(kCmdLineMax - 10, 'y'));
}

TEST(FtpLineBuf, UnendedFloodIsDroppedAndTheBufferStaysBounded) {
  // Far more than the buffer holds, with no line end, then a command.
  LineBuf w;
  std::string chunk(1000, 'x');
  for (int i = 0; i < 50; i++) w.append(chunk.data(), static_cast<int>(chunk.size()));
  EXPECT_EQ(w.inmax, kInGrowSize);
  EXPECT_GT(w.unread(), 0);
  EXPECT_LT(w.unread(), 50000 - kInGrowSize + 10);  // the flood's head was thrown away
  std::string tail = "\r\nNOOP\r\n";
  w.append(tail.data(), static_cast<int>(tail.size()));
  std::string line;
  ASSERT_EQ(w.next_line(line), 1);
  EXPECT_EQ(line, std::string(kCmdLineMax, 'x'));
  ASSERT_EQ(w.next_line(line), 1);
  EXPECT_EQ(line, "NOOP");
}

TEST(FtpLineBuf, AbortPollSeesOnlyUnreadExactAbor) {
  const struct {
    const char* input;
    int found;
  } cases[] = {
      {"ABOR\r\n", 1}, {"abor\r\n", 1}, {"xxABORyy", 1}, {"Abor\r\n", 0}, {"ABO", 0}, {"", 0},
  };
  for (const auto& c : cases) {
    LineBuf w;
    w.append(c.input, static_cast<int>(strlen(c.input)));
    EXPECT_EQ(w.has_abor(), c.found) << c.input;
  }
  // Bytes already run are not looked at again.
  LineBuf w;
  std::string text = "ABOR\r\nNOOP\r\n";
  w.append(text.data(), static_cast<int>(text.size()));
  std::string line;
  ASSERT_EQ(w.next_line(line), 1);
  EXPECT_EQ(w.has_abor(), 0);
}

// The session side over a loopback pair: `peer` is the client's end.
class FtpioSession : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    char tmpl[] = "/tmp/ftpio_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    emsg_open((dir_ + "/korvane.log").c_str());
    std::ofstream(dir_ + "/k.ini") << "vdomain name=\"d\"\n";
    ASSERT_EQ(ini_read("korvane", (dir_ + "/k.ini").c_str()), 1);
    ASSERT_TRUE(test::make_chan_pair(peer_, l_.c));
    l_.ipnum = "127.0.0.1";  // keeps replies out of the command log
    l_.idle_time_start = static_cast<int>(time(nullptr));
    l_.idle_time_limit = 1;
  }
  void TearDown() override {
    ini_free_all();
    emsg_open("");
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }
  void say(const std::string& bytes) {
    ASSERT_EQ(tcp_write(peer_.get(), bytes.data(), static_cast<int>(bytes.size())), static_cast<int>(bytes.size()));
  }
  std::string heard() {
    char bf[512];
    int n = tcp_read_timed(peer_.get(), bf, sizeof bf, 5000);
    return n > 0 ? std::string(bf, static_cast<size_t>(n)) : std::string();
  }
  std::string dir_;
  ChanPtr peer_;
  Link l_;
};

TEST_F(FtpioSession, IdleLimitTellsTheClientAndEnds) {
  l_.idle_time_start -= 61;
  EXPECT_EQ(tcp_readmore(&l_, 0, 1), 0);
  EXPECT_EQ(l_.closing.load(), 1);
  EXPECT_EQ(heard(), "421 Timeout (1 minutes): closing control connection.\r\n");
  // Not an FTP read: no limit applies.
  l_.closing = 0;
  say("NOOP\r\n");
  EXPECT_EQ(tcp_readmore(&l_, 5000, 0), 1);
  EXPECT_EQ(l_.w.unread(), 6);
}

TEST_F(FtpioSession, AbortPollDuringATransfer) {
  EXPECT_EQ(cmd_abort(&l_), 0);  // nothing sent
  say("NOOP\r\n");
  ASSERT_EQ(tcp_readmore(&l_, 5000, 1), 1);
  EXPECT_EQ(cmd_abort(&l_), 0);
  say("abor\r\n");
  // The poll reads without waiting, so first wait (bounded) for the bytes.
  ASSERT_EQ(tcp_need_read_attention(l_.c.get(), 5000), 1);
  EXPECT_EQ(cmd_abort(&l_), 1);
  EXPECT_EQ(l_.done_abort, 1);
  EXPECT_EQ(l_.w.unread(), 12);  // the lines stay to be run after the transfer
  // A client that goes away stops the transfer too, without an ABOR reply to come.
  peer_.reset();
  ASSERT_EQ(tcp_need_read_attention(l_.c.get(), 5000), 1);
  EXPECT_EQ(cmd_abort(&l_), 1);
  EXPECT_EQ(l_.done_abort, 0);
}

}  // namespace
}  // namespace korv
