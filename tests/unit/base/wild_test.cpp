#include "base/wild.h"

#include <gtest/gtest.h>

#include <string>

namespace korv {
namespace {

struct MatchCase {
    const char* pattern;
    const char* text;
    int want;
};

TEST(Domatch, PatternTable) {
    const MatchCase cases[] = {
        {"abc", "abc", 1}, {"abc", "abd", 0}, {"ABC", "abc", 0},
        {"abc", "ab", -1},                      // the text ran out
        {"ab", "abc", 0},                       // the pattern ran out first
        {"a*", "", -1}, {"*", "", 1}, {"?", "", -1}, {"?", "a", 1}, {"??", "a", -1},
        {"a**b", "axxb", 1}, {"a***", "a", 1},  // stars collapse
        {"*b", "aaa", -1},                      // tried everywhere, text exhausted
        {"*a*b", "xaxxc", -1},                  // the inner -1 ends the outer search
        {"*.txt", "a.txt.txt", 1}, {"*x*y", "xxy", 1},
        {"[abc]", "b", 1}, {"[abc]", "d", 0}, {"[^abc]", "d", 1}, {"[^abc]", "a", 0},
        {"[]a]", "]", 1}, {"[]a]", "a", 1}, {"[-a]", "-", 1}, {"[a-]", "-", 1},  // literal "]" and "-"
        {"[a-c]", "b", 1}, {"[a-c]", "d", 0}, {"[a-cx-z]", "y", 1}, {"[^]]", "]", 0}, {"[^]]", "a", 1},
        {"x[0-9]y", "x5y", 1}, {"x[0-9]y", "xay", 0},
        {"[ab", "a", 1}, {"[a-", "b", 0}, {"[", "[", 0},  // an unclosed class ends with the pattern
        {"\\*", "*", 1}, {"\\*", "a", 0}, {"a\\?b", "a?b", 1}, {"a\\?b", "axb", 0},
        {"\\", "\\", 1},                       // a trailing backslash stands for itself
        {"[\xe9]", "\xe9", 1}, {"[a-\xff]", "\xe9", 1},  // bytes above 127 compare as bytes
    };
    for (const MatchCase& c : cases) {
        EXPECT_EQ(domatch(c.text, c.pattern), c.want) << c.pattern << " / " << c.text;
    }
}

TEST(MatchWild, StarAloneAndResultFolding) {
    const MatchCase cases[] = {
        {"*", "", 1},          {"*", "anything at all", 1}, {"a*", "", 0},
        {"abc", "ab", 0},      {"*.txt", "a.txt", 1},       {"*.txt", "a.TXT", 0},
        {"", "", 1},           {"", "a", 0},
    };
    for (const MatchCase& c : cases) {
        EXPECT_EQ(match_wild(c.pattern, c.text), c.want) << c.pattern << " / " << c.text;
    }
}

TEST(SimpleMatchWild, IgnoresCaseInLettersAndClasses) {
    const MatchCase cases[] = {
        {"*", "", 1},        {"*.TXT", "/a/b.txt", 1}, {"/A/*", "/a/B", 1},  {"[a-c]x", "BX", 1},
        {"[^A-C]", "b", 0},  {"\\Q", "q", 1},          {"a?c", "ABC", 1},    {"*.txt", "a.txt.gz", 0},
        {"abc", "ab", 0},
    };
    for (const MatchCase& c : cases) {
        EXPECT_EQ(simple_match_wild(c.pattern, c.text), c.want) << c.pattern << " / " << c.text;
    }
    EXPECT_EQ(simple_domatch("ABC", "abc", 1), 0);  // the flag keeps case when asked
}

TEST(MatchWild, AddressRanges) {
    const MatchCase ipnum[] = {
        {"10.0.0-5.*", "10.0.0.3", 1}, {"10.0.0-5.*", "10.0.5.200", 1} /* inclusive */,
        {"10.0.0-5.*", "10.0.6.3", 0}, {"10.0.*", "10.0.0.1", 0} /* three parts */,
        {"10.0.0.1", "10.0.0", 0},     {"1-3.*.*.1?", "2.9.9.15", 1},
        {"1-3.*.*.1?", "4.9.9.15", 0}, {"192.168.1.*", "192.168.2.1", 0},
    };
    for (const MatchCase& c : ipnum) {
        EXPECT_EQ(match_wild_ipnum(c.pattern, c.text), c.want) << c.pattern << " / " << c.text;
    }
    const MatchCase either[] = {
        {"10.0.0-5.*", "10.0.0.3", 1}, {"10.0.0-5.*", "10.0.6.3", 0},
        {"10.*", "10.1.2.3", 1},  // no "-": plain wild-card
        {"1-2-3", "1-2-3", 1},    // not an address: falls back to the wild-card
        {"a-b", "a-b", 1},        {"a-b", "a-c", 0},
    };
    for (const MatchCase& c : either) {
        EXPECT_EQ(match_wild_or_ip(c.pattern, c.text), c.want) << c.pattern << " / " << c.text;
    }
}

TEST(MatchList, NegationOrderAndCase) {
    const MatchCase cases[] = {
        {"", "anything", 1},                                    // empty list matches all
        {"a,", "b", 0}, {"a,", "a", 1}, {",a", "a", 0}, {"a,,b", "b", 0},  // empty item ends it
        {"*,!10.0.0.*", "10.0.0.7", 0}, {"*,!10.0.0.*", "10.0.1.7", 1},
        {"!a,*", "a", 1}, {"a,!a", "a", 0}, {"!*", "x", 0},     // the last match decides
        {"b,c", "a", 0}, {"ABC", "abc", 1}, {"abc", "ABC", 1},
        {" a", "a", 0},                                         // blanks are kept
        {"10.0.0-5.*", "10.0.0.3", 1}, {"10.0.0-5.*", "10.0.6.3", 0},  // address ranges
    };
    for (const MatchCase& c : cases) {
        EXPECT_EQ(lib_match_list(c.pattern, c.text), c.want) << c.pattern << " / " << c.text;
    }
}

TEST(MatchList, ValueAndItemCuts) {
    const std::string value(kMatchListValueMax, 'a');
    EXPECT_EQ(lib_match_list("*b", (value + "b").c_str()), 0);  // the "b" is past the cut
    EXPECT_EQ(lib_match_list("a*", (value + "b").c_str()), 1);
    const std::string x(kMatchListItemMax, 'x');
    EXPECT_EQ(lib_match_list((x + "yyy").c_str(), x.c_str()), 1);  // item cut to its bound
    EXPECT_EQ(lib_match_list((x + "yyy").c_str(), (x + "yyy").c_str()), 0);
}

TEST(MatchGroups, AtMarksAndSense) {
    struct Case {
        const char* list;
        const char* group;
        int want;
        int isat;
    };
    const Case cases[] = {
        {"", "staff", 1, 0},
        {"staff", "STAFF", 1, 0},
        {"staff,!wheel", "wheel", 0, 0},
        {"@wheel", "wheel", 0, 1},         // "@" gives sense 0 and marks
        {"!@wheel", "wheel", 0, 1},
        {"@wheel,wheel", "wheel", 1, 0},   // the last match sets isat too
        {"wheel,@w*", "wheel", 0, 1},
        {"@wheel", "staff", 0, 0},
        {"10.0.0-5.*", "10.0.0.3", 0, 0},  // plain wild-cards only
        {"a,,b", "b", 0, 0},
    };
    for (const Case& c : cases) {
        int isat = -1;
        EXPECT_EQ(lib_match_groups(c.list, c.group, &isat), c.want) << c.list << " / " << c.group;
        EXPECT_EQ(isat, c.isat) << c.list << " / " << c.group;
    }
    EXPECT_EQ(lib_match_groups("a", "a", nullptr), 1);
}

TEST(Wildrep, RewritesByPattern) {
    struct Case {
        const char* in;
        const char* wild;
        const char* tpl;
        int want;
        const char* result;
    };
    const Case cases[] = {
        {"Report.TXT", "*.txt", "%1.bak", 1, "Report.bak"},    // case kept from the input
        {"abc.tar.gz", "*.tar.*", "%2-%1", 1, "gz-abc"},
        {"prefix_Mid_suffix", "PREFIX_*_SUFFIX", "[%1]", 1, "[Mid]"},
        {"abc", "x*", "%1", 0, ""},
        {"xabc", "a*", "%1", 0, ""},                           // first word anchored
        {"xabc", "*a*", "%1|%2", 1, "x|bc"},
        {"a", "*", "<%1%2>", 1, "<a>"},                        // missing match is empty
        {"file", "*", "100%", 1, "100%"},
        {"file", "*", "%0%a", 1, "%0%a"},
        {"a.b.c", "*.*", "%1+%2", 1, "a+b.c"},                  // leftmost words
    };
    for (const Case& c : cases) {
        std::string out = "stale";
        EXPECT_EQ(wildrep(c.in, c.wild, c.tpl, out), c.want) << c.in << " / " << c.wild;
        EXPECT_EQ(out, c.result) << c.in << " / " << c.wild;
    }
}

TEST(Wildrep, BoundsOnWordsAndResult) {
    std::string wild, in;
    for (int i = 0; i < kWildrepWordsMax + 1; ++i) {
        wild += "w" + std::to_string(i) + "*";
        if (i < kWildrepWordsMax) in += "w" + std::to_string(i) + "-";
    }
    std::string out;
    EXPECT_EQ(wildrep(in.c_str(), wild.c_str(), "ok", out), 1);  // the word past the bound is not sought
    const std::string big(300, 'q');
    EXPECT_EQ(wildrep(big.c_str(), "*", "%1%1%1", out), 1);
    EXPECT_EQ(out, std::string(kWildrepResultMax, 'q'));
}

}  // namespace
}  // namespace korv
