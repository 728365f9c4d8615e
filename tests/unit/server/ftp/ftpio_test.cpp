// The control line framer: lines end only at CR LF, every split of the input
// gives the same lines, long lines and unended floods are discarded whole; and on
// a loopback pair, the idle limit and the abort poll of a transfer.
#include "server/ftp/ftpio.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/session/link.h"
#include "server/settings/ini.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

// Feeds `pieces` as the session does (append, take every complete line,
// compact); the lines, and the unread bytes in `rest`.
std::vector<std::string> frame(const std::vector<std::string>& pieces, std::string* rest = nullptr) {
  LineBuf w;
  std::vector<std::string> lines;
  for (const auto& piece : pieces) {
    w.append(piece.data(), static_cast<int>(piece.size()));
    std::string line;
    for (int got; (got = w.next_line(line)) != 0;) lines.push_back(got == 2 ? "<too long>" : line);
    w.compact();
  }
  if (rest != nullptr) rest->assign(w.inbf ? w.inbf.get() : "", static_cast<size_t>(w.unread()));
  return lines;
}

TEST(FtpLineBuf, EverySplitGivesTheSameLines) {
  const struct {
    std::string input;
    std::vector<std::string> lines;
    std::string rest;
  } cases[] = {
      {"NOOP\r\n", {"NOOP"}, ""},
      {"NOOP\nX\r\n", {"NOOP\nX"}, ""},  // a bare LF is part of the line
      {"\r\n\r\n", {"", ""}, ""},
      {"\n\r\n", {"\n"}, ""},
      {"A\r\rB\r\n", {"A\r\rB"}, ""},      // a bare CR too
      {"A\r\n\nB\r\n", {"A", "\nB"}, ""},  // the LF after CR LF starts the next line
      {"USER a b\r\nPASS x y\r\nNOOP", {"USER a b", "PASS x y"}, "NOOP"},
      {std::string("NO\0OP\r\n", 7), {"NOOP"}, ""},  // NUL bytes are dropped
      {"NOOP\r", {}, "NOOP\r"},
  };
  for (const auto& c : cases) {
    std::string rest;
    EXPECT_EQ(frame({c.input}, &rest), c.lines) << c.input;
    EXPECT_EQ(rest, c.rest) << c.input;
    for (size_t cut = 1; cut < c.input.size(); cut++) {
      EXPECT_EQ(frame({c.input.substr(0, cut), c.input.substr(cut)}), c.lines) << c.input << " cut at " << cut;
    }
    std::vector<std::string> bytes;
    for (char ch : c.input) bytes.emplace_back(1, ch);
    EXPECT_EQ(frame(bytes), c.lines) << c.input << " byte by byte";
  }
}

TEST(FtpLineBuf, LongLinesAreDiscardedWhole) {
  const std::string y(kCmdLineMax, 'y');
  const struct {
    std::string input;
    std::vector<std::string> lines;
  } cases[] = {
      {y + "\r\n", {y}},  // the longest line that runs
      {y + "y\r\nSYST\r\n", {"<too long>", "SYST"}},
      {std::string(10, '\0') + y + "\r\nSYST\r\n", {"<too long>", "SYST"}},  // NULs count
      {y + y + "\r\nNOOP\r\n", {"<too long>", "NOOP"}},
      {y + y + "\r", {}},  // the CR that may begin the line end is kept
  };
  for (const auto& c : cases) {
    EXPECT_EQ(frame({c.input}), c.lines) << c.input.size();
    std::vector<std::string> pieces;
    for (size_t at = 0; at < c.input.size(); at += 7) pieces.push_back(c.input.substr(at, 7));
    EXPECT_EQ(frame(pieces), c.lines) << c.input.size() << " in pieces";
  }
  // An unended flood never runs in part: not its tail, not its head.
  std::string flood(1 << 20, 'x');
  flood.replace(flood.size() - 100, 4, "NOOP");
  flood.replace(500000, 6, "\nDELE ");
  EXPECT_EQ(frame({flood + "\r\nPWD\r\n"}), (std::vector<std::string>{"<too long>", "PWD"}));
  std::vector<std::string> chunks;
  for (size_t at = 0; at < flood.size(); at += 4096) chunks.push_back(flood.substr(at, 4096));
  chunks.push_back("\r\nPWD\r\n");
  EXPECT_EQ(frame(chunks), (std::vector<std::string>{"<too long>", "PWD"}));
  // Dropped through the buffer's own limit (the abort poll reads without framing).
  LineBuf w;
  std::string chunk(1000, 'x');
  for (int i = 0; i < 50; i++) w.append(chunk.data(), static_cast<int>(chunk.size()));
  EXPECT_EQ(w.inmax, kInGrowSize);
  w.append("\r\nNOOP\r\n", 8);
  std::string line;
  ASSERT_EQ(w.next_line(line), 2);
  ASSERT_EQ(w.next_line(line), 1);
  EXPECT_EQ(line, "NOOP");
  // Only a line cut by the drop loses its rest; complete lines leave nothing.
  const struct {
    const char *before, *after;
    std::vector<std::string> lines;
  } drops[] = {
      {"NOOP\r\nSY", "ST\r\nPWD\r\n", {"<too long>", "PWD"}},
      {"NOOP\r\n", "SYST\r\n", {"SYST"}},
      {"NOOP\r", "\nPWD\r\n", {"<too long>", "PWD"}},
  };
  for (const auto& d : drops) {
    LineBuf v;
    v.append(d.before, static_cast<int>(strlen(d.before)));
    v.drop_unread();
    v.append(d.after, static_cast<int>(strlen(d.after)));
    std::vector<std::string> got;
    for (int r; (r = v.next_line(line)) != 0;) got.push_back(r == 2 ? "<too long>" : line);
    EXPECT_EQ(got, d.lines) << d.before;
  }
}

// The session side over a loopback pair: `peer_` is the client's end.
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
    EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
  }
  void say(const char* bytes) { ASSERT_EQ(tcp_write(peer_.get(), bytes, static_cast<int>(strlen(bytes))), 6); }
  std::string dir_;
  ChanPtr peer_;
  Link l_;
};

TEST_F(FtpioSession, IdleLimitTellsTheClientAndEnds) {
  l_.idle_time_start -= 61;
  EXPECT_EQ(tcp_readmore(&l_, 0, 1), 0);
  EXPECT_EQ(l_.closing.load(), 1);
  char bf[100];
  int n = tcp_read_timed(peer_.get(), bf, sizeof bf, 5000);
  EXPECT_EQ(std::string(bf, static_cast<size_t>(n > 0 ? n : 0)),
            "421 Timeout (1 minutes): closing control connection.\r\n");
}

TEST_F(FtpioSession, AbortPollDuringATransfer) {
  EXPECT_EQ(cmd_abort(&l_), 0);  // nothing sent
  say("NOOP\r\n");
  ASSERT_EQ(tcp_readmore(&l_, 5000, 1), 1);
  EXPECT_EQ(cmd_abort(&l_), 0);
  say("Abor\r\n");  // only "ABOR" and "abor" count
  ASSERT_EQ(tcp_need_read_attention(l_.c.get(), 5000), 1);
  EXPECT_EQ(cmd_abort(&l_), 0);
  say("abor\r\n");
  // The poll reads without waiting, so first wait (bounded) for the bytes.
  ASSERT_EQ(tcp_need_read_attention(l_.c.get(), 5000), 1);
  EXPECT_EQ(cmd_abort(&l_), 1);
  EXPECT_EQ(l_.done_abort, 1);
  EXPECT_EQ(l_.w.unread(), 18);  // the lines stay to be run after the transfer
  // A client that goes away stops the transfer too, with no ABOR reply to come.
  peer_.reset();
  ASSERT_EQ(tcp_need_read_attention(l_.c.get(), 5000), 1);
  EXPECT_EQ(cmd_abort(&l_), 1);
  EXPECT_EQ(l_.done_abort, 0);
}

}  // namespace
}  // namespace korv
