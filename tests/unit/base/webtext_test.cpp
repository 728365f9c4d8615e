#include "base/webtext.h"

#include <gtest/gtest.h>

#include <string>

namespace korv {
namespace {

TEST(WebText, FormValueEncoding) {
    struct Case { const char* in; const char* want; } cases[] = {
        {"plain", "plain"},
        {"a b", "a+b"},
        {"<x>&\"+", "&lt;x&gt;&amp;&#34;&#2b;"},
        {"", ""},
    };
    static char bf[kUrlEncodeBuf];
    for (const auto& c : cases) {
        EXPECT_STREQ(lib_url_encode(bf, c.in), c.want);
        EXPECT_EQ(lib_url_encode(std::string_view(c.in)), c.want);
    }
    EXPECT_STREQ(lib_url_encode(bf, nullptr), "");

    // The longest text still encoded fills the buffer exactly.
    std::string most(kUrlEncodeLimit - 1, '<');
    EXPECT_EQ(std::string(lib_url_encode(bf, most.c_str())).size(), most.size() * 4);
    std::string quotes(kUrlEncodeLimit - 1, '"');
    EXPECT_EQ(std::string(lib_url_encode(bf, quotes.c_str())).size(), quotes.size() * 5);
    // At the limit the text comes back untouched, as the same pointer.
    std::string over(kUrlEncodeLimit, '<');
    EXPECT_EQ(lib_url_encode(bf, over.c_str()), over.c_str());
    EXPECT_EQ(lib_url_encode(std::string_view(over)), over);
}

TEST(WebText, FormValueDecoding) {
    struct Case { const char* in; const char* want; } cases[] = {
        {"a+b", "a b"},
        {"&lt;&gt;&amp;", "<>&"},
        {"&#2b;x", "+x"},
        {"&#41;&#4a", "AJ"},  // hexadecimal, the ';' optional
        {"&foo; & end", "&foo; & end"},
        {"&#;", "&#;"},
        {"&#zz", "&#zz"},
        {"tail&", "tail&"},
    };
    char bf[kUrlDecodeMax + 1];
    for (const auto& c : cases) {
        EXPECT_STREQ(lib_url_decode(bf, c.in), c.want) << c.in;
        EXPECT_EQ(lib_url_decode(std::string_view(c.in)), c.want) << c.in;
    }
    std::string big(1500, '+');
    EXPECT_EQ(std::string(lib_url_decode(bf, big.c_str())), std::string(kUrlDecodeMax, ' '));

    // Everything but '"' comes back from its encoding.
    static char enc[kUrlEncodeBuf];
    const char* text = "a <b> & c+d";
    EXPECT_STREQ(lib_url_decode(bf, lib_url_encode(enc, text)), text);
}

TEST(WebText, DisplayEncoding) {
    char bf[kUrlDecodeMax];
    EXPECT_STREQ(lib_web_encode(bf, "<a href=\"x\">&"), "&lt;a href=&quot;x&quot;&gt;&amp;");
    EXPECT_STREQ(lib_web_encode(bf, "a b+c"), "a b+c");
    EXPECT_EQ(lib_web_encode(std::string_view("<>")), "&lt;&gt;");
    // The buffer form never ends in half an entity.
    std::string amps(400, '&');
    std::string got = lib_web_encode(bf, amps.c_str());
    EXPECT_EQ(got.size(), (static_cast<size_t>(kUrlDecodeMax - 1) / 5) * 5);
    EXPECT_EQ(got.substr(got.size() - 5), "&amp;");
    EXPECT_EQ(lib_web_encode(std::string_view(amps)).size(), 2000u);
}

// A banner of several lines is kept on one settings line and comes back the
// same, less its CRs.
TEST(WebText, StoredMultiLineText) {
    struct Case { const char* text; const char* stored; const char* back; } cases[] = {
        {"one\r\ntwo\n", "one\\ntwo\\n", "one\ntwo\n"},
        {"C:\\new", "C:\\\\new", "C:\\new"},  // a backslash before n is not a line end
        {"plain", "plain", "plain"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(lib_cr_encode(c.text), c.stored);
        EXPECT_EQ(lib_cr_decode(c.stored), c.back);
    }
    EXPECT_EQ(lib_cr_decode(std::string_view("a\\tb\\")), "a\\tb\\");
    // The limit never splits an escape.
    std::string lines(3000, '\n');
    std::string stored = lib_cr_encode(lines);
    EXPECT_EQ(stored.size(), static_cast<size_t>(kCrEncodeMax));
    EXPECT_EQ(lib_cr_decode(stored), std::string(kCrEncodeMax / 2, '\n'));
    char bf[8];
    EXPECT_STREQ(lib_cr_decode(bf, "ab\\ncdefgh", 5), "ab\ncd");
}

}  // namespace
}  // namespace korv
