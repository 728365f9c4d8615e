// The pure parts of transfers: ASCII conversion both ways (an upload split at
// every offset), block headers, the reading of speed limits and the pacing of
// both directions, the daily counts, and the transfer-log line.
#include "server/ftp/transfer.h"

#include <gtest/gtest.h>

#include <string>

#include "common/mutex.h"
#include "server/ftp/daily.h"
#include "server/ftp/speed.h"
#include "server/ftp/transfer_ascii.h"
#include "server/session/link.h"

namespace korv {
namespace {

std::string to_crlf(const std::string& in) {
  std::string out(2 * in.size(), '\0');
  out.resize(cvt_lf_crlf(in.data(), in.size(), out.data()));
  return out;
}

// Feeds `in` to one converter in the pieces given by `cuts`.
std::string to_lf(const std::string& in, std::initializer_list<size_t> cuts = {}) {
  CrlfToLf c;
  std::string out;
  size_t at = 0;
  std::vector<size_t> ends(cuts);
  ends.push_back(in.size());
  for (size_t end : ends) {
    std::string piece = in.substr(at, end - at);
    std::string buf(piece.size() + 1, '\0');
    buf.resize(c.run(piece.data(), piece.size(), buf.data()));
    out += buf;
    at = end;
  }
  char last;
  if (c.finish(&last)) out += last;
  return out;
}

TEST(TransferAscii, BothDirections) {
  struct Case {
    const char *in, *crlf, *lf;
  } cases[] = {
      {"", "", ""},
      {"a\nb\n", "a\r\nb\r\n", "a\nb\n"},
      {"\n\n", "\r\n\r\n", "\n\n"},
      // Every LF gets a CR going out, one after a CR too.
      {"a\r\nb", "a\r\r\nb", "a\nb"},
      // Coming in, only the CR of a CR LF goes.
      {"x\ry\r", "x\ry\r", "x\ry\r"},
      {"\r\r\n", "\r\r\r\n", "\r\n"},
  };
  for (const Case& k : cases) {
    EXPECT_EQ(to_crlf(k.in), k.crlf) << k.in;
    EXPECT_EQ(to_lf(k.in), k.lf) << k.in;
  }
}

TEST(TransferAscii, UploadSplitAtEveryOffset) {
  const std::string in = "ab\r\n\r\ncd\r\re\rf\r\n\r";
  const std::string whole = to_lf(in);
  EXPECT_EQ(whole, "ab\n\ncd\r\re\rf\n\r");
  for (size_t i = 0; i <= in.size(); i++) {
    for (size_t j = i; j <= in.size(); j++) EXPECT_EQ(to_lf(in, {i, j}), whole) << i << "," << j;
  }
}

TEST(TransferAscii, BlockHeaders) {
  unsigned char h[3];
  block_header(h, 65535, true);
  EXPECT_EQ(h[0], kBlockEof);
  EXPECT_EQ(block_header_len(h), 65535);
  block_header(h, 258, false);
  EXPECT_EQ(h[0] | 0, 0);
  EXPECT_EQ(h[1] * 1000 + h[2], 1002);
}

TEST(Speed, LimitTexts) {
  struct Case {
    const char* text;
    int bytes;
  } cases[] = {
      {"", 0},           {"100", 102400},        {"1234", 1234 << 10}, {"12345", 12345},
      {"2MB", 2 << 20},  {"3 K bytes", 3 << 10}, {"30 k bytes", 30 << 10},
      {"3 bytes", 3},    {"7k", 7 << 10},        {nullptr, 0},
  };
  for (const Case& k : cases) EXPECT_EQ(speed_bytes(k.text), k.bytes) << (k.text ? k.text : "null");
}

TEST(Speed, DownloadBlocksAndPacing) {
  SpeedDown none(0, 0);
  EXPECT_EQ(none.block(262140), 262140);
  EXPECT_EQ(none.wait_ms(1LL << 40, 0.5), 0);

  SpeedDown s(speed_bytes("100"), 10.0);  // 102400 bytes a second
  EXPECT_EQ(s.block(262140), 20480);      // a fifth of a second's allowance
  EXPECT_EQ(s.wait_ms(20480, 10.0), 0);   // no time gone and under a second's worth
  EXPECT_EQ(s.wait_ms(102400, 10.0), 200);
  EXPECT_EQ(s.wait_ms(102400, 11.0), 0);  // exactly on the average
  // Half a second ahead of the average: one step of 200 ms at most.
  EXPECT_EQ(s.wait_ms(153600, 11.0), 200);
  SpeedDown k(1000, 0.0);
  EXPECT_EQ(k.wait_ms(1125, 1.0), 125);  // an eighth of a second ahead

  SpeedDown fast(4 << 20, 0.0);  // above 1000000: twenty steps a second
  EXPECT_EQ(fast.block(262140), kXferBlock);
  EXPECT_EQ(fast.wait_ms(8LL << 20, 1.0), 50);
  SpeedDown tiny(3, 0.0);  // a share below one byte keeps the whole block
  EXPECT_EQ(tiny.block(262140), kXferBlock);
}

TEST(Speed, UploadBudgetPerSecond) {
  SpeedUp u;
  u.limit = 1000;
  EXPECT_EQ(u.wait_ms(5.0), 0);
  u.add(600, 5.1);
  EXPECT_EQ(u.wait_ms(5.2), 0);
  u.add(600, 5.3);  // 1200 in second 5: wait for second 6
  EXPECT_EQ(u.wait_ms(5.75), 250);
  EXPECT_EQ(u.wait_ms(6.01), 0);  // a new second, a new budget
  u.add(900, 6.02);
  EXPECT_EQ(u.wait_ms(6.5), 0);
}

TEST(Daily, PerAddressInHundredsAndPerUser) {
  mutex_init();
  day_free();
  long long t = -1;
  day_add("10.0.0.1", 0, &t);
  EXPECT_EQ(t, 0);
  day_add("10.0.0.1", 250, &t);  // each call is cut to whole hundreds
  day_add("10.0.0.1", 250, &t);
  EXPECT_EQ(t, 4);
  day_add("10.0.0.2", 1000000, &t);
  EXPECT_EQ(t, 10000);
  // Addresses are told apart only on their first 20 characters.
  day_add("1111:2222:3333:4444:aaaa", 100, &t);
  day_add("1111:2222:3333:4444:bbbb", 100, &t);
  EXPECT_EQ(t, 2);
  day_free();
  day_add("10.0.0.1", 0, &t);
  EXPECT_EQ(t, 0);

  remove_user_daily_quota();
  EXPECT_EQ(get_user_daily_quota("bob"), 0);
  EXPECT_EQ(add_to_user_daily_quota("bob", 5), 5);
  EXPECT_EQ(add_to_user_daily_quota("bob", 7), 12);
  EXPECT_EQ(get_user_daily_quota("bob"), 12);
  EXPECT_EQ(get_user_daily_quota("bobby"), 0);
  // The sweep frees entries a day old once it reaches their bucket; it steps
  // over at most 100 empty buckets a call, so a few calls reach any bucket.
  for (int i = 0; i < kUserTableSize / 100 + 2; i++) per_username_settings_idle(time(nullptr) + 86400);
  EXPECT_EQ(get_user_daily_quota("bob"), 0);
  remove_user_daily_quota();
}

TEST(TransferLog, LineFields) {
  Link l;
  l.ipnum = "10.0.0.22";
  l.user = "bob";
  l.isbin = 1;
  EXPECT_EQ(xfer_line(&l, 3, 5000000000LL, "/home/a//file.tar.Z", "o", true),
            "3 10.0.0.22 5000000000 \"/home/a/file.tar.Z\" b _ o r bob \"bob\" 0 * c\n");
  l.isanon = 1;
  l.isbin = 0;
  l.user = "anonymous";
  l.useremail = "me@example.org";
  EXPECT_EQ(xfer_line(&l, 0, 0, "/pub/x", "i", false),
            "0 10.0.0.22 0 \"/pub/x\" a _ i a anonymous \"me@example.org\" 0 * i\n");
}

}  // namespace
}  // namespace korv
