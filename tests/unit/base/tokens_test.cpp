#include "base/tokens.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/str.h"

namespace korv {
namespace {

using Tokens = std::vector<std::string>;
using Splitter = int (*)(char*, char**, const char*, int);

// Runs a splitter over a copy of `in` and checks that the array ends with
// its null entry at the returned count.
Tokens run(Splitter f, const char* in, const char* sep, int tmax) {
    std::string buf(in);
    std::vector<char*> p(static_cast<size_t>(tmax) + 1, reinterpret_cast<char*>(1));
    int n = f(buf.data(), p.data(), sep, tmax);
    EXPECT_GE(n, 0);
    EXPECT_LT(n, tmax);
    EXPECT_EQ(p[static_cast<size_t>(n)], nullptr) << in;
    return Tokens(p.begin(), p.begin() + n);
}

Tokens run2(int (*f)(char*, char**, int), const char* in, int tmax = 20) {
    std::string buf(in);
    std::vector<char*> p(static_cast<size_t>(tmax) + 1, reinterpret_cast<char*>(1));
    int n = f(buf.data(), p.data(), tmax);
    EXPECT_EQ(p[static_cast<size_t>(n)], nullptr) << in;
    return Tokens(p.begin(), p.begin() + n);
}

TEST(Tokens, SplitTable) {
    struct Case { Splitter f; const char* in; const char* sep; int tmax; Tokens want; } cases[] = {
        {token_split, "", " ", 10, {}},
        {token_split, " \t \r\n", " \t\r\n", 10, {}},
        {token_split, "  RETR   a.txt\r\n", " \t\r\n", 10, {"RETR", "a.txt"}},
        {token_split, "a b c d", " ", 3, {"a", "b c d"}},  // the last keeps the tail
        {token_split, "a b", " ", 1, {}},
        {token_split, "1|x||y", "|", 90, {"1", "x", "y"}},
        {token_split2, "|2|::1|5282|", "|", 90, {"", "2", "::1", "5282", ""}},
        {token_split2, "a,,b", ",;", 90, {"a", "", "b"}},  // only the first separator counts
        {token_split2, "a;b", ",;", 90, {"a;b"}},
        {token_split2, "", "|", 90, {}},
        {token_split2, "a,b,c,d,e", ",", 8, {"a", "b", "c"}},  // stops once count + 5 reaches 8
        {quoted_token_split, "a \"b c\" d", " ", 10, {"a", "\"b c\"", "d"}},
        {quoted_token_split, "a \"b c", " ", 10, {"a", "\"b c"}},
        {quoted_token_split, "\"x y\"z w", " ", 10, {"\"x y\"z", "w"}},
        {quoted_token_split, "a b c d", " ", 4, {"a", "b"}},  // stops once count + 2 reaches 4
        {quoted_token_split_rm_quot, "a \"b c\" d", " ", 10, {"a", "b c", "d"}},
        {quoted_token_split_rm_quot, "\"x y\"z w", " ", 10, {"x yz", "w"}},
        {quoted_token_split_rm_quot, "\"\" x", " ", 10, {"", "x"}},
        {quoted_token_split_rm_quot, "  \"open end", " ", 10, {"open end"}},
        {quoted_token_split2_rm_quot, "Mon Jan  5 \"my file\" x", " ", 30,
         {"Mon", "Jan", "", "5", "my file", "x"}},
        {quoted_token_split2_rm_quot, "a \"b c\" ", " ", 30, {"a", "b c", ""}},
    };
    for (const auto& c : cases) EXPECT_EQ(run(c.f, c.in, c.sep, c.tmax), c.want) << c.in;
}

TEST(Tokens, NameValueAndCommaTokenisers) {
    struct Case { int (*f)(char*, char**, int); const char* in; Tokens want; } cases[] = {
        {token_quote, "a=b", {"a", "=", "b"}},
        {token_quote, "a = b", {"a", "=", "b"}},
        {token_quote, "a=\"b c\"", {"a", "=", "b c"}},
        {token_quote, "k = \"v=w\" z", {"k", "=", "v=w", "z"}},
        {token_quote, "x \"a\\\"b\" y", {"x", "a\"b", "y"}},
        {token_quote, "p=\"C:\\\\dir\"", {"p", "=", "C:\\dir"}},
        {token_quote, "\tname\t\"open", {"name", "open"}},
        {token_quote, "=", {"="}},
        {lib_token_comma, "a, b", {"a", ",", "b"}},
        {lib_token_comma, "a ,b", {"a", ",", "b"}},
        {lib_token_comma, ", a", {"a"}},
        {lib_token_comma, "a,,b\r\n", {"a", ",", "b"}},
        {lib_token_comma, "a b", {"a", "b"}},
    };
    for (const auto& c : cases) EXPECT_EQ(run2(c.f, c.in), c.want) << c.in;
    // The bound holds even when '=' adds a token of its own.
    EXPECT_EQ(run2(token_quote, "a=b=c", 3), (Tokens{"a", "="}));
}

TEST(Tokens, MystrtokGoesOnFromUpto) {
    char buf[] = ",,one, two,,three,";
    char* upto = nullptr;
    Tokens got;
    for (char* t = mystrtok(buf, ", ", &upto); t; t = mystrtok(nullptr, ", ", &upto)) got.push_back(t);
    EXPECT_EQ(got, (Tokens{"one", "two", "three"}));
    EXPECT_EQ(mystrtok(nullptr, ", ", &upto), nullptr);
}

TEST(Tokens, WordsAndRestOfACommandLine) {
    struct Case {
        const char* line;
        int n;
        const char* word;  // lib_get_word(line, n)
        const char* rest;  // lib_get_rest(line, n)
    } cases[] = {
        {"SITE CHMOD 755 a b", 0, "", "SITE CHMOD 755 a b"},
        {"SITE CHMOD 755 a b", 2, "CHMOD", "755 a b"},
        {"SITE CHMOD 755 a b", 5, "b", ""},
        {"RETR  two\tblanks", 1, "RETR", " two\tblanks"},
        {"RETR  two\tblanks", 3, "blanks", ""},
        {"x", 2, "", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(lib_get_word(c.line, c.n), c.word) << c.line << " " << c.n;
        EXPECT_EQ(lib_get_rest(c.line, c.n), c.rest) << c.line << " " << c.n;
    }
    std::string huge = "CMD " + std::string(1500, 'w');
    EXPECT_EQ(lib_get_word(huge.c_str(), 2).size(), static_cast<size_t>(kGetWordMax - 4));
    EXPECT_EQ(lib_get_rest(huge.c_str(), 1).size(), static_cast<size_t>(kGetRestMax));
    std::string many;
    for (int i = 0; i < 120; i++) many += "w" + std::to_string(i) + " ";
    EXPECT_EQ(lib_get_word(many.c_str(), 98), "w97");
    EXPECT_EQ(lib_get_word(many.c_str(), 99).substr(0, 8), "w98 w99 ");
    EXPECT_EQ(lib_get_word(many.c_str(), 100), "");
}

// Walks every line of `text` with `next` and checks the buffer is whole
// again afterwards.
template <typename Next>
Tokens walk(const std::string& text, Next next) {
    std::string buf = text;
    Strlines v;
    str_lines_start(&v, buf.data(), static_cast<int>(buf.size()));
    Tokens got;
    for (char* l; (l = next(&v));) got.push_back(l);
    str_lines_end(&v);
    EXPECT_EQ(buf, text);
    return got;
}

TEST(Tokens, LineWalkerPlainAndCrlf) {
    auto plain = [](Strlines* v) { return str_lines_next(v); };
    EXPECT_EQ(walk("a\r\nb\n\nc", plain), (Tokens{"a", "b", "", "c"}));
    EXPECT_EQ(walk("a\n", plain), (Tokens{"a"}));
    EXPECT_EQ(walk("", plain), (Tokens{}));
    EXPECT_EQ(walk("x\ry\n", plain), (Tokens{"x\ry"}));

    std::vector<int> eols;
    auto crlf = [&eols](Strlines* v) {
        int eol = -1;
        char* l = str_lines_next_crlf(v, &eol);
        if (l) eols.push_back(eol);
        return l;
    };
    EXPECT_EQ(walk("a\r\nb\nc\r\nd", crlf), (Tokens{"a\r\n", "b\nc\r\n", "d"}));
    EXPECT_EQ(eols, (std::vector<int>{1, 1, 0}));
    eols.clear();
    EXPECT_EQ(walk("a\r\n\r\n", crlf), (Tokens{"a\r\n", "\r\n"}));
    EXPECT_EQ(eols, (std::vector<int>{1, 1}));

    std::string buf = "one\ntwo\nthree";
    Strlines v;
    str_lines_start(&v, buf.data(), static_cast<int>(buf.size()));
    EXPECT_STREQ(str_lines_next(&v), "one");
    int len = 0;
    const char* rest = str_lines_rest(&v, &len);
    EXPECT_EQ(std::string(rest, static_cast<size_t>(len)), "two\nthree");
    str_lines_end(&v);
}

// A client's lines split over several reads, ended by CRLF, LF or bare CR.
TEST(Tokens, LineWalkerAnyEndingAcrossBuffers) {
    struct Line {
        std::string text;
        int goteol;
    };
    auto feed = [](const std::vector<std::string>& reads) {
        std::vector<Line> out;
        int ended_with_cr = 0;
        char tmp[kLineTmp + 1];
        for (const auto& r : reads) {
            std::string buf = r;
            Strlines v;
            str_lines_start(&v, buf.data(), static_cast<int>(buf.size()));
            int goteol = -1;
            for (char* l; (l = str_lines_next_any(&v, &goteol, &ended_with_cr, tmp));)
                out.push_back({l, goteol});
            str_lines_end(&v);
            EXPECT_EQ(buf, r);
        }
        return out;
    };
    auto got = feed({"x\ry\r", "\nz\n", "w\r\nv"});
    std::vector<std::string> texts;
    std::vector<int> eols;
    for (const auto& l : got) {
        texts.push_back(l.text);
        eols.push_back(l.goteol);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"x\r\n", "y\r\n", "z\r\n", "w\r\n", "v"}));
    EXPECT_EQ(eols, (std::vector<int>{1, 1, 1, 1, 0}));

    // A CR that ends one read and an LF that starts the next is one line end,
    // but an LF after a CR that did not end the read is an empty line.
    got = feed({"a\r", "\n\nb\r\n"});
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[1].text, "\r\n");
    EXPECT_EQ(got[2].text, "b\r\n");

    got = feed({std::string(1200, 'L') + "\n"});
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].text.size(), static_cast<size_t>(kLineTmp));
    EXPECT_EQ(got[0].text.substr(kLineTmp - 2), "\r\n");
}

}  // namespace
}  // namespace korv
