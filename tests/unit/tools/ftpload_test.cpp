// ftpload's reply framer, passive-address parser and statistics: the parts whose faults would
// silently skew every figure.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/ftpload/ftpreply.h"

namespace korv {
namespace {

struct FramerCase {
    std::vector<std::string> lines;
    int code;          // code of the complete reply; 0: still open after the last line; -1: malformed
    std::string text;  // last line of the complete reply
};

TEST(FtpReplyFramer, FramesSingleAndMultiLineReplies) {
    const FramerCase cases[] = {
        {{"220 ready"}, 220, "220 ready"},
        {{"200"}, 200, "200"},
        {{"230-Welcome", "230 done"}, 230, "230 done"},
        // Inner lines may start with digits, even another code or the same code without a blank.
        {{"211-Features:", " MDTM", "214 not the end", "211-still open", "211 End."}, 211, "211 End."},
        {{"220-first", "220-second"}, 0, ""},
        {{"221-bye", "220 other code"}, 0, ""},
        {{"hello"}, -1, ""},
        {{"22"}, -1, ""},
        {{"2200 x"}, -1, ""},
        {{"620 x"}, -1, ""},
    };
    for (const auto& c : cases) {
        ReplyFramer f;
        FtpReply r;
        int got = 0;
        for (const auto& l : c.lines) {
            ASSERT_EQ(got, 0) << c.lines[0] << ": completed before its last line";
            got = f.feed(l, r);
        }
        if (c.code > 0) {
            EXPECT_EQ(got, 1) << c.lines[0];
            EXPECT_EQ(r.code, c.code) << c.lines[0];
            EXPECT_EQ(r.text, c.text) << c.lines[0];
            EXPECT_FALSE(f.in_multiline());
        } else {
            EXPECT_EQ(got, c.code) << c.lines[0];
        }
    }
}

TEST(FtpReplyFramer, StartsAfreshAfterEachReply) {
    ReplyFramer f;
    FtpReply r;
    ASSERT_EQ(f.feed("150-opening", r), 0);
    ASSERT_EQ(f.feed("150 ok", r), 1);
    ASSERT_EQ(f.feed("226 done", r), 1);
    EXPECT_EQ(r.code, 226);
}

TEST(FtpPasvPort, ParsesTheSixNumbers) {
    const struct {
        const char* text;
        int port;
    } cases[] = {
        {"227 Entering Passive Mode (127,0,0,1,195,80).", 195 * 256 + 80},
        {"227 Entering Passive Mode (127,0,0,1,0,21)", 21},
        {"227 Entering Passive Mode 127,0,0,1,4,1", 1025},
        {"227 =127,0,0,1,4,1", 1025},
        {"227 Entering Passive Mode (127,0,0,1,256,1).", -1},
        {"227 Entering Passive Mode (127,0,0,1,4).", -1},
        {"227 Entering Passive Mode (127,0,0,1,0,0).", -1},
        {"227 Entering Passive Mode (", -1},
    };
    for (const auto& c : cases) EXPECT_EQ(pasv_port(c.text), c.port) << c.text;
}

TEST(FtpLoadStats, MedianAndNearestRankPercentile) {
    std::vector<double> none;
    EXPECT_EQ(median(none), 0);
    EXPECT_EQ(percentile(none, 99), 0);
    std::vector<double> odd{5, 1, 3};
    EXPECT_EQ(median(odd), 3);
    std::vector<double> even{4, 1, 3, 2};
    EXPECT_EQ(median(even), 2.5);
    // 1..200 unordered: the 99th percentile is the 198th smallest, the 100th the largest.
    std::vector<double> v;
    for (int i = 200; i >= 1; i--) v.push_back(i);
    EXPECT_EQ(percentile(v, 99), 198);
    EXPECT_EQ(percentile(v, 100), 200);
    EXPECT_EQ(percentile(v, 0.1), 1);
    std::vector<double> one{7};
    EXPECT_EQ(percentile(one, 99), 7);
}

}  // namespace
}  // namespace korv
