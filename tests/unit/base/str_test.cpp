#include "base/str.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace korv {
namespace {

// A buffer with guard bytes on both sides, so that a write past the bound
// the caller gave shows up.
struct Guarded {
    char raw[kBufSize + 32];
    char* buf = raw + 16;
    Guarded() { std::memset(raw, '#', sizeof raw); }
    bool guards_intact(int last) const {
        for (int i = 0; i < 16; i++)
            if (raw[i] != '#') return false;
        for (const char* q = buf + last + 1; q < raw + sizeof raw; q++)
            if (*q != '#') return false;
        return true;
    }
};

TEST(Str, BoundedCopiesStopAtTheLastIndex) {
    struct Case {
        const char* dst_before;
        const char* src;
        int len;
        bool append;
        const char* want;
    } cases[] = {
        {"", "hello", 0, false, ""},    {"", "hello", 3, false, "hel"}, {"", "hello", 5, false, "hello"},
        {"", "hello", 9, false, "hello"}, {"ab", "cdef", 4, true, "abcd"}, {"ab", "cd", 9, true, "abcd"},
        {"abcd", "x", 4, true, "abcd"},
        {"abcdef", "x", 3, true, "abc"},  // a destination already past len is cut there
    };
    for (const auto& c : cases) {
        Guarded g;
        std::strcpy(g.buf, c.dst_before);
        if (c.append)
            ncat(g.buf, c.src, c.len);
        else
            ncpy(g.buf, c.src, c.len);
        EXPECT_STREQ(g.buf, c.want) << c.src << " len " << c.len;
        EXPECT_EQ(g.buf[c.len], 0);
        // Nothing beyond dst[len] was touched, except the old text itself.
        int keep = std::max(c.len, static_cast<int>(std::strlen(c.dst_before)));
        EXPECT_TRUE(g.guards_intact(keep)) << c.src << " len " << c.len;
    }
    char d[4] = "zz";
    EXPECT_STREQ(ncpy_nullok(d, nullptr, 3), "");
}

TEST(Str, TrimsAndQuoteStripping) {
    char tmp[kBufSize];
    EXPECT_STREQ(lib_trim_spaces(" \t a b \t ", tmp), "a b");
    EXPECT_STREQ(lib_trim_spaces("   ", tmp), "");
    EXPECT_STREQ(lib_trim_qspaces(" \"x y\" ", tmp), "x y");
    EXPECT_EQ(lib_trim_qspaces(std::string_view("\"\"z\"\"")), "z");
    EXPECT_EQ(lib_trim_spaces(std::string_view("  q  ")), "q");

    // The copy is cut at 990 bytes before the trailing blanks go.
    std::string longer = std::string(985, 'a') + "   " + std::string(20, 'b');
    EXPECT_EQ(std::string(lib_trim_spaces(longer.c_str(), tmp)), std::string(985, 'a') + "   bb");
    EXPECT_EQ(std::strlen(tmp), static_cast<size_t>(kTrimMax));
    std::string blanks_at_cut = std::string(988, 'a') + std::string(10, ' ') + "z";
    EXPECT_EQ(std::string(lib_trim_spaces(blanks_at_cut.c_str(), tmp)), std::string(988, 'a'));
    EXPECT_EQ(lib_trim_spaces(std::string_view(blanks_at_cut)), std::string(988, 'a'));

    const char* plain = "no quotes";
    EXPECT_EQ(lib_strip_quotes(plain, tmp), plain);
    EXPECT_STREQ(lib_strip_quotes("\"in side\" out", tmp), "in side");
    EXPECT_STREQ(lib_strip_quotes("\"open", tmp), "open");
    std::string long_quoted = "\"" + std::string(150, 'q') + "\"";
    EXPECT_EQ(std::strlen(lib_strip_quotes(long_quoted.c_str(), tmp)), static_cast<size_t>(kStripQuotesMax));
}

TEST(Str, PadRight) {
    char tmp[kBufSize];
    EXPECT_STREQ(lib_pad_right("ab", 5, tmp), "ab   ");
    EXPECT_STREQ(lib_pad_right("abcdef", 3, tmp), "abcdef");
    EXPECT_EQ(std::strlen(lib_pad_right("x", 5000, tmp)), static_cast<size_t>(kLastIndex));
    EXPECT_EQ(lib_pad_right(std::string_view("ab"), 4), "ab  ");
    EXPECT_EQ(lib_pad_right(std::string_view("abcde"), 4), "abcde");
}

TEST(Str, TruthWords) {
    struct Case { const char* s; int t, f, first_letter; } cases[] = {
        {"true", 1, 0, 1},    {"TRUE", 1, 0, 1},     {"Yes", 1, 0, 1},   {"on", 1, 0, 0},
        {"Checked", 1, 0, 0}, {"selected", 1, 0, 0}, {"false", 0, 1, 0}, {"NO", 0, 1, 0},
        {"Off", 0, 1, 0},     {"", 0, 0, 0},         {"tru", 0, 0, 1},   {"yes ", 0, 0, 1},
        {"1", 0, 0, 0},       {"onx", 0, 0, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(istrue(c.s), c.t) << c.s;
        EXPECT_EQ(isfalse(c.s), c.f) << c.s;
        EXPECT_EQ(lib_istrue(c.s), c.first_letter) << c.s;
    }
    EXPECT_EQ(istrue(nullptr), 0);
    EXPECT_EQ(isfalse(nullptr), 0);
}

TEST(Str, CaseBlindSearch) {
    const char* hay = "Content-TYPE: text";
    EXPECT_EQ(strstrnc(hay, "type"), hay + 8);
    EXPECT_EQ(strstrnc(hay, "length"), nullptr);
}

TEST(Str, IpShapes) {
    struct Case { const char* s; int want; } cases[] = {
        {"10.0.0.1", 1}, {"[10.0.0.1]", 1}, {"10.0.0.1]", 1}, {"[1.2]x", 0},
        {"[1].2", 0},    {"host.com", 0},   {"", 0},          {"[", 0},
        {"::1", 0},      {"1.2.3.4 ", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(lib_isip(c.s), c.want) << c.s;
}

// Expected values follow the rule by hand: lanes of signed bytes at shifts 0,
// 8, 16, 24 added into an unsigned 32-bit total.
TEST(Str, HashFollowsTheStoredRule) {
    EXPECT_EQ(lib_str_hash("", 500), 0);
    EXPECT_EQ(lib_str_hash("a", 500), 97 % 500);
    uint32_t abcd = 97u + (98u << 8) + (99u << 16) + (100u << 24);
    EXPECT_EQ(lib_str_hash("abcd", 500), static_cast<int>(abcd % 500u));
    // The fifth byte starts the next lane at shift 0.
    EXPECT_EQ(lib_str_hash("abcde", 500), static_cast<int>((abcd + 101u) % 500u));
    EXPECT_EQ(lib_str_hash("abcdef", 1000), static_cast<int>((abcd + 101u + (102u << 8)) % 1000u));
    // A byte above 127 subtracts: 0xff is -1.
    EXPECT_EQ(lib_str_hash("\xff", 500), static_cast<int>(0xFFFFFFFFu % 500u));
    EXPECT_EQ(lib_str_hash("a\xff", 500), static_cast<int>((97u - 256u) % 500u));
    EXPECT_EQ(lib_str_hash("abc", 1), 0);

    EXPECT_EQ(lib_str_hash_old("ab", 500), (97 * 8 + 98) % 500);
    EXPECT_EQ(lib_str_hash_old("\xff", 7), 1);  // |-1 mod 7|
}

TEST(Str, NumberWords) {
    struct Case { const char* s; int want; } cases[] = {
        {"10", 10},      {"10k", 10 << 10}, {"10K", 10 << 10}, {"10mb", 10 << 20}, {"3M", 3 << 20},
        {"7mk", 7 << 20}, {"1gig", 1 << 30}, {"-4k", -4096},    {"", 0},            {"abc", 0},
        {"10 mb", 10},     // the copy is cut at the blank before the suffix test
        {"2gig", INT_MIN},  // wraps in 32 bits
    };
    for (const auto& c : cases) EXPECT_EQ(nice_atoi(c.s), c.want) << c.s;
    EXPECT_DOUBLE_EQ(nice_atof("2gig"), 2e9);
    EXPECT_DOUBLE_EQ(nice_atof("1.5m"), 1e6);  // fractions are dropped
    EXPECT_DOUBLE_EQ(nice_atof("3k"), 3000);
}

TEST(Str, NiceNumAndCommas) {
    struct Num { int d; const char* want; } nums[] = {
        {0, "0"}, {90000, "90000"}, {90001, "90k"}, {5000000, "5000k"},
        {5000001, "5k"}, {123456789, "123k"}, {-7, "-7"}};
    for (const auto& c : nums) EXPECT_EQ(nice_num(c.d), c.want) << c.d;

    struct Comma {
        const char* in;
        int bfsz;
        const char* want;  // null: refused
    } commas[] = {{"1234567", 20, "1,234,567"}, {"-1234.56", 20, "-1,234.56"}, {"123", 20, "123"},
                  {"1000", 6, "1,000"}, {"1000", 5, nullptr}, {"999999.9999", 20, "999,999.9999"}};
    for (const auto& c : commas) {
        char bf[32];
        std::strcpy(bf, c.in);
        char* r = comma_number(bf, c.bfsz);
        if (c.want) {
            EXPECT_EQ(r, bf);
            EXPECT_STREQ(bf, c.want);
        } else {
            EXPECT_EQ(r, nullptr);
            EXPECT_STREQ(bf, c.in);
        }
    }
}

}  // namespace
}  // namespace korv
