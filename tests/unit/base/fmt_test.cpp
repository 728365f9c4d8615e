#include "base/fmt.h"

#include <gtest/gtest.h>

namespace korv {
namespace {

// Output past the first-pass stack buffer must come out whole, not cut.
TEST(Fmt, ShortAndLongOutputsAreExact) {
    EXPECT_EQ(strfmt("%d:%s", 7, "x"), "7:x");
    std::string big(5000, 'a');
    std::string got = strfmt("<%s>", big.c_str());
    ASSERT_EQ(got.size(), 5002u);
    EXPECT_EQ(got.front(), '<');
    EXPECT_EQ(got.back(), '>');
    std::string acc = "ab";
    strfmt_append(acc, "%s%03d", big.c_str(), 5);
    EXPECT_EQ(acc.size(), 2u + 5000u + 3u);
    EXPECT_EQ(acc.substr(acc.size() - 3), "005");
}

}  // namespace
}  // namespace korv
