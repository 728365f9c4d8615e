// ftp_time_convert: the fixed places of "YYYYMMDDHHMMSS", the text that is
// too short, and GMT whatever the local zone.
#include "server/ftp/cmd_file.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "base/dates.h"

namespace korv {
namespace {

TEST(FtpTimeConvert, FixedPlacesInGmt) {
  const struct {
    const char* text;
    time_t want;
  } cases[] = {
      {"20210102030405", 1609556645},
      {"20210102030405 with a name after", 1609556645},  // MFMT's whole argument
      {"202101020304", 1609556640},                       // no seconds
      {"19700101000000", 0},
      {"20240229235959", 1709251199},
      {"20210102030", 0},  // shorter than 12: time 0
      {"", 0},
  };
  // A zone west of GMT without summer time, and GMT itself: the answer is
  // the same.
  for (const char* tz : {"EST5", "UTC0"}) {
    setenv("TZ", tz, 1);
    tzset();
    for (const auto& c : cases) EXPECT_EQ(ftp_time_convert(c.text), c.want) << c.text << " in " << tz;
  }
  EXPECT_STREQ(lib_ftp_time(ftp_time_convert("20301231120000")), "20301231120000");
}

}  // namespace
}  // namespace korv
