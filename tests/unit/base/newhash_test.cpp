// hash_new: every level over a stripped, lower-case name, the comma encoding
// of the last component, and the refusals.
#include "base/newhash.h"

#include <gtest/gtest.h>

namespace korv {
namespace {

// "sample": s1 = 's'+'m'+'l' = 332 % 256 = 76, s2 = 'a'+'p'+'e' = 310 % 256 = 54;
// the first four bytes sum to 433, 433 % 26 = 17 ('r').
TEST(NewHash, LevelsOfOneName) {
  struct Case {
    const char* user;
    int level;
    int adduser;
    const char* want;
  } cases[] = {
      {"sample", 0, 1, "/m/sample"},
      {"sample", 1, 1, "/m/r/sample"},
      {"sample", 2, 1, "/m/s/a/sample"},
      {"x", 2, 0, "/m/x/x"},  // no second character: the first again
      {"sample", 3, 1, "/m/n_h6/f4/sample"},
      {"sample", 4, 1, "/m/sa/mp/sample"},
      {"abc", 4, 0, "/m/ab/c"},  // a short name ends the shape early
      {"a", 4, 0, "/m/a"},
      {"sample", 5, 1, "/m/hg/fe/sample"},
      {"sample", 6, 0, "/m/0/hg/fe"},  // (76 + 54) % 10
      {"SaMple", 5, 1, "/m/hg/fe/SaMple"},  // hashed in lower case, the name kept
      {"s.am.ple", 5, 0, "/m/hg/fe"},        // dots never count in the hash
  };
  for (const Case& c : cases) {
    std::string path = "/m";
    std::string name;
    EXPECT_EQ(hash_new(path, c.user, "/", c.level, c.adduser, &name), 1) << c.user;
    EXPECT_EQ(path, c.want) << c.user << " level " << c.level;
    EXPECT_EQ(name, c.user);
  }
}

TEST(NewHash, InvalidCharactersAreStrippedFromTheHashAndEncodedInTheName) {
  std::string path = "/m/";  // an existing separator is not doubled
  std::string name;
  // The hash sees "s,ample" minus "/" and "#": "s,ample".
  ASSERT_EQ(hash_new(path, "s,am/p#le", "/#", 2, 1, &name), 1);
  EXPECT_EQ(name, "s,2cam,2fp,23le");
  EXPECT_EQ(path, "/m/s/,/s,2cam,2fp,23le");
  // A null or empty list means "/".
  std::string a = "/m", b = "/m";
  hash_new(a, "a/b", nullptr, 2, 1, nullptr);
  hash_new(b, "a/b", "", 2, 1, nullptr);
  EXPECT_EQ(a, "/m/a/b/a,2fb");
  EXPECT_EQ(b, a);
  EXPECT_EQ(encode_invalid(std::string(600, 'q').c_str(), "/").size(), size_t{kHashNameMax});
}

TEST(NewHash, RefusalsEmptyThePath) {
  struct Case {
    const char* path;
    const char* user;
    int level;
  } cases[] = {
      {"/m", "sample", 7}, {"/m", "sample", -1}, {"", "sample", 2},
      {"/m", "", 2},       {"/m", "...", 2},     {"/m", "//", 2},  // nothing left to hash
  };
  for (const Case& c : cases) {
    std::string path = c.path;
    EXPECT_EQ(hash_new(path, c.user, "/", c.level, 1, nullptr), 0) << c.user << " " << c.level;
    EXPECT_EQ(path, "");
  }
}

}  // namespace
}  // namespace korv
