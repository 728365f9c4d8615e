// Listing lines on fixed entries and a fixed "now", in UTC.
#include "server/ftp/listfmt.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>

namespace korv {
namespace {

constexpr time_t kNow = 1718452800;        // 2024-06-15 12:00 UTC
constexpr time_t kMar5 = 1709629620;       // 2024-03-05 09:07
constexpr time_t kLastDec31 = 1704067140;  // 2023-12-31 23:59
constexpr time_t kJan2 = 1704155400;       // 2024-01-02 00:30
constexpr time_t kNewYear = 1704067800;    // 2024-01-01 00:10
[[maybe_unused]] const bool kUtc = (setenv("TZ", "UTC", 1), tzset(), true);

WILD_DATA entry(const char* name, int mode, int isdir, time_t t, int uid = 0) {
  WILD_DATA d;
  d.name = name;
  d.mode = mode;
  d.isdir = isdir;
  d.nlinks = isdir ? 2 : 1;
  d.uid = d.gid = uid;
  d.time_write = t;
  return d;
}

TEST(ListFmt, LinesInBothLayouts) {
  WILD_DATA link = entry("/srv/pub/ln", 0777, 0, kMar5);
  link.islink = 1;
  link.symlink = "/srv/pub/docs/target.txt";
  const std::string longname = "/srv/pub/" + std::string(250, 'n');
  const struct {
    WILD_DATA d;
    long long size;
    int dirstyle;
    const char* prefix;
    std::string want;
  } cases[] = {
      {entry("/srv/pub/a.txt", 0644, 0, kMar5), 1234, 0, "/srv/pub",
       "-rw-r--r--   1 root     root         1234 Mar  5  9:07 a.txt\r\n"},
      {entry("/srv/pub/sub", 04751, 1, kLastDec31), 4096, 0, "/srv/pub",
       "drwxr-x--x   2 root     root         4096 Dec 31  2023 sub\r\n"},
      {link, 24, 0, "/srv/pub", "lrwxrwxrwx   1 root     root           24 Mar  5  9:07 ln -> docs/target.txt\r\n"},
      {entry("/srv/pub/x", 0, 0, kMar5, 54321), 123456789, 0, "/srv/pub",
       "----------   1 54321    54321    123456789 Mar  5  9:07 x\r\n"},
      {entry(longname.c_str(), 0644, 0, kMar5), 1, 0, "/srv/pub",
       "-rw-r--r--   1 root     root            1 Mar  5  9:07 " + std::string(200, 'n') + "\r\n"},
      {entry("/srv/pub/a.txt", 0644, 0, kJan2), 1234, 1, "/srv/pub", "01-02-24  00:30AM                 1234 a.txt\r\n"},
      {entry("/srv/pub/a.txt", 0644, 0, kJan2 + 41700), 0, 1, "/srv/pub",
       "01-02-24  12:05PM                    0 a.txt\r\n"},
      {entry("/srv/pub/sub", 0755, 1, kJan2 + 84540), 4096, 1, "/srv/pub",
       "01-02-24  11:59PM       <DIR>          sub\r\n"},
  };
  for (const auto& c : cases) {
    std::string line;
    EXPECT_EQ(dir_format(c.dirstyle, &c.d, c.size, line, c.prefix, kNow), c.want) << c.d.name;
  }
}

TEST(ListFmt, CalendarYearDecidesTimeOrYear) {
  const struct {
    time_t t, now;
    const char* want;
  } cases[] = {
      {kLastDec31, kNewYear, "Dec 31  2023"},        // yesterday, but last year
      {kNewYear, kNewYear, "Jan  1  0:10"},          {kJan2, 1734681600, "Jan  2  0:30"},  // 11 months
      {kNow + 86400 * 230, kNow, "Jan 31  2025"},  // dated in the future
      {LLONG_MAX, kNow, "Bad Time    "},
  };
  for (const auto& c : cases) {
    std::string bf;
    EXPECT_EQ(lib_file_date(bf, c.t, c.now), c.want) << c.t;
  }
}

TEST(ListText, NamesRelativeToAPrefix) {
  const struct {
    const char *prefix, *in, *want;
  } cases[] = {
      {"/srv/ftp", "/srv/ftp/a", "a"},          {"/SRV/ftp", "/srv/FTP/a/b", "a/b"},  // case is ignored
      {"/srv//ftp/", "\\srv\\ftp\\a", "a"},     {"/srv/ftp/*.txt", "/srv/ftp/b.txt", "b.txt"},
      {"/srv/x", "/srv/ftp/a", "ftp/a"},        {"/srv/ftp", "/srv/ftp", ""},
      {"", "/a/b", "/a/b"},                     {"other", "/a/b", "/a/b"},  // nothing in common
      {"/srv/ftp", "sub", "sub"},
  };
  for (const auto& c : cases) {
    std::string out;
    EXPECT_EQ(remove_prefix(c.in, c.prefix, out), c.want) << c.prefix << " | " << c.in;
  }
}

TEST(ListText, AliasesBelowTheListedDirectory) {
  const struct {
    const char *alias, *showname;
    int match;
    const char* level;
  } cases[] = {
      {"/pub", "/", 1, "pub"},     {"/pub/in/deep", "/", 1, "pub"}, {"/", "/", 0, ""},
      {"/pub/in/deep", "/pub", 1, "in"}, {"/public", "/pub", 0, ""},  {"/Pub/in", "/pub", 0, ""},
      {"/pub\\win\\x", "/pub", 1, "win"}, {"/pub/", "/pub", 1, ""},   {"/pub", "/pub/in", 0, ""},
  };
  for (const auto& c : cases) {
    size_t n = std::string(c.showname).size();
    EXPECT_EQ(alias_matches(c.alias, c.showname, n), c.match) << c.alias << " under " << c.showname;
    if (c.match) {
      EXPECT_EQ(alias_next_level(c.alias, n), c.level) << c.alias;
    }
  }
}

TEST(ListText, OptionWords) {
  const struct {
    bool nlst;
    const char *in, *out;
    int full, rec;
  } cases[] = {
      {false, "-lR   a b", "a b", 1, 1}, {false, "/x -l", "/x -l", 0, 0},  // LIST reads a first word only
      {true, "/x -l", "/x", 1, 0},       {true, "a -R b", "a b", 0, 1},   {true, "a-b c", "a-b c", 0, 0},
  };
  for (const auto& c : cases) {
    std::string s = c.in;
    int full = -1, rec = -1;
    (c.nlst ? strip_options : strip_options_pre)(s, &full, &rec);
    EXPECT_EQ(s + "|" + std::to_string(full) + std::to_string(rec),
              c.out + std::string("|") + std::to_string(c.full) + std::to_string(c.rec));
  }
}

}  // namespace
}  // namespace korv
