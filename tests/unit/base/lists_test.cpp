#include "base/lists.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace korv {
namespace {

std::vector<std::string> words(const Wordlist* w) {
    std::vector<std::string> out;
    for (const char* s; (s = word_enum(&w));) out.push_back(s);
    return out;
}

std::vector<std::string> pairs(const Pair* p) {
    std::vector<std::string> out;
    for (; p; p = p->next.get()) out.push_back(p->var + "=" + p->val);
    return out;
}

struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/korv_lists_XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
};

TEST(Wordlist, AddPrependsAndReverseMends) {
    WordlistPtr w;
    EXPECT_EQ(words(w.get()), std::vector<std::string>{});
    for (const char* s : {"one", "two", "Three"}) EXPECT_EQ(word_add(w, s), 1);
    EXPECT_EQ(words(w.get()), (std::vector<std::string>{"Three", "two", "one"}));
    EXPECT_EQ(word_count(w.get()), 3);
    EXPECT_EQ(word_find(w.get(), "two"), 1);
    EXPECT_EQ(word_find(w.get(), "three"), 0);
    EXPECT_EQ(word_findnc(w.get(), "three"), 1);

    WordlistPtr copy;
    word_copy(copy, w.get());
    EXPECT_EQ(words(copy.get()), (std::vector<std::string>{"one", "two", "Three"}));
    word_reverse(w);
    EXPECT_EQ(words(w.get()), words(copy.get()));

    EXPECT_EQ(word_free(w), 1);
    EXPECT_EQ(w, nullptr);
    EXPECT_EQ(word_free(w), 1);  // freeing an empty list is allowed

    WordlistPtr t;
    EXPECT_EQ(word_tok(t, " a, b ,,c ", ", "), 3);
    EXPECT_EQ(words(t.get()), (std::vector<std::string>{"c", "b", "a"}));
}

// A long file must not overflow the stack when its list is freed.
TEST(Wordlist, LongListsFreeIteratively) {
    WordlistPtr w;
    for (int i = 0; i < 300000; i++) word_add(w, "x");
    word_reverse(w);
    EXPECT_EQ(word_count(w.get()), 300000);
    w.reset();
    PairPtr p;
    for (int i = 0; i < 300000; i++) pair_add(p, "n", "v");
    PairPtr c = pair_copy(p.get());
    pair_free(p);
    EXPECT_EQ(p, nullptr);
}

TEST(Wordlist, FileRoundTripKeepsOrder) {
    TempDir dir;
    std::string in = dir.path + "/in.txt";
    FILE* f = std::fopen(in.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("first\r\nsecond\n\nlast-no-eol", f);
    std::fclose(f);

    WordlistPtr w = word_loadfile(in.c_str());
    EXPECT_EQ(words(w.get()), (std::vector<std::string>{"first", "second", "", "last-no-eol"}));
    std::string out = dir.path + "/out.txt";
    EXPECT_EQ(word_savefile(w.get(), out.c_str()), 4);
    WordlistPtr back = word_loadfile(out.c_str());
    EXPECT_EQ(words(back.get()), words(w.get()));

    EXPECT_EQ(word_loadfile((dir.path + "/missing").c_str()), nullptr);
    EXPECT_EQ(word_savefile(w.get(), (dir.path + "/no/such/dir").c_str()), 0);

    // A line longer than the read buffer comes back in pieces.
    std::string longf = dir.path + "/long.txt";
    f = std::fopen(longf.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs((std::string(1200, 'z') + "\n").c_str(), f);
    std::fclose(f);
    WordlistPtr pieces = word_loadfile(longf.c_str());
    auto got = words(pieces.get());
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].size() + got[1].size(), 1200u);
}

TEST(Pair, AddFindAndDuplicates) {
    PairPtr p;
    EXPECT_STREQ(pair_find(nullptr, "x"), "");
    EXPECT_STREQ(pair_findnc(p.get(), "x"), "");
    pair_add(p, "name", "first");
    pair_add(p, "name", "second");  // prepended: found first
    EXPECT_STREQ(pair_find(p.get(), "name"), "second");
    pair_add(p, "Mode", "a", 1);
    pair_add(p, "Mode", "b", 1);  // replaced, not added
    pair_add(p, "mode", "c", 1);  // names compare by exact case
    EXPECT_EQ(pairs(p.get()), (std::vector<std::string>{"mode=c", "Mode=b", "name=second", "name=first"}));
    EXPECT_STREQ(pair_find(p.get(), "Mode"), "b");
    EXPECT_STREQ(pair_findnc(p.get(), "MODE"), "c");
    EXPECT_STREQ(pair_find(p.get(), "absent"), "");

    EXPECT_EQ(pair_remove(p, "name", "first"), 1);
    EXPECT_EQ(pair_remove(p, "name", "first"), 0);
    EXPECT_EQ(pair_removenc(p, "MODE", nullptr), 1);  // the first of either case
    EXPECT_EQ(pairs(p.get()), (std::vector<std::string>{"Mode=b", "name=second"}));
    EXPECT_EQ(pair_remove(p, "name", nullptr), 1);
    EXPECT_EQ(pair_remove(p, "Mode", "b"), 1);
    EXPECT_EQ(p, nullptr);
}

// Header lines arrive in order; a folded line continues the last value.
TEST(Pair, AddEndJoinsFoldedHeaderLines) {
    PairPtr h;
    Pair* last = nullptr;
    EXPECT_EQ(pair_add_end(h, &last, "", "orphan"), 0);
    pair_add_end(h, &last, "Host", "a");
    pair_add_end(h, &last, "X-Long", "one");
    pair_add_end(h, &last, "", "two");
    pair_add_end(h, &last, "Accept", "*/*");
    EXPECT_EQ(pairs(h.get()), (std::vector<std::string>{"Host=a", "X-Long=one\r\n two", "Accept=*/*"}));

    // A null cursor appends at the tail of an existing list.
    Pair* none = nullptr;
    pair_add_end(h, &none, "Tail", "t");
    EXPECT_EQ(pairs(h.get()).back(), "Tail=t");
}

TEST(Pair, CopyIsDeepAndSortOrders) {
    PairPtr p;
    for (auto [n, v] : {std::pair{"b", "2"}, {"c", "1"}, {"a", "3"}, {"b", "0"}}) pair_add(p, n, v);
    PairPtr c = pair_copy(p.get());
    EXPECT_EQ(pairs(c.get()), pairs(p.get()));
    c->val = "changed";
    EXPECT_STREQ(pair_find(p.get(), "b"), "0");

    pair_sort(p, pair_cmp);
    EXPECT_EQ(pairs(p.get()), (std::vector<std::string>{"a=3", "b=0", "b=2", "c=1"}));  // stable
    pair_sort(p, pair_cmp_v);
    EXPECT_EQ(pairs(p.get()), (std::vector<std::string>{"b=0", "c=1", "b=2", "a=3"}));
}

}  // namespace
}  // namespace korv
