// The page template engine, rendered through a real loopback connection:
// conditionals, cutting, substitution and escaping, generators, lists,
// includes, missing files and two pages rendered at once.
#include "server/admin/webtpl.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "net/tcp.h"
#include "tests/support/certs.h"
#include "tests/support/chanpair.h"

namespace korv {

namespace {

using test::TempDir;

// One request's record on the server end of a loopback pair; out() ends the
// connection and returns every byte the client received.
class Page {
  public:
    Page() {
        EXPECT_TRUE(test::make_chan_pair(client_, server_));
        w.c = server_.get();
    }
    void set(std::initializer_list<std::pair<const char*, const char*>> vars) {
        for (const auto& [k, v] : vars) web_var_add(&w, k, v);
    }
    std::string out() {
        tcp_close(server_.get());
        std::string got;
        char bf[4096];
        int n;
        while ((n = tcp_read_timed(client_.get(), bf, sizeof bf, 10000)) > 0) got.append(bf, static_cast<size_t>(n));
        return got;
    }
    WINK w;

  private:
    ChanPtr client_, server_;
};

void write_file(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary);
    f << text;
}

struct Case {
    const char* text;
    std::vector<std::pair<const char*, const char*>> vars;
    const char* want;
};

std::string render_line(const Case& c) {
    Page p;
    for (const auto& [k, v] : c.vars) web_var_add(&p.w, k, v);
    EXPECT_EQ(web_show_line(&p.w, c.text, nullptr, "t.htm"), 1) << c.text;
    return p.out();
}

TEST(WebTemplate, ConditionalsNestAndCountSkippedOpenings) {
    const char* nest3 =
        "||ifdef||a||<1>||ifdef||b||<2>||ifdef||c||<3>||else||<3e>||endif||<2b>||else||<2e>||endif||"
        "<1b>||else||<1e>||endif||<end>";
    const char* sel = "||ifequal||style||windows||<y>||else||<n>||endif||";
    const Case cases[] = {
        {"<a>||ifdef||x||<b>||endif||<c>", {}, "<a><c>"},
        {"<a>||ifdef||x||<b>||endif||<c>", {{"x", "1"}}, "<a><b><c>"},
        {"||ifdef||x||<t>||else||<f>||endif||", {{"x", "1"}}, "<t>"},
        {"||ifdef||x||<t>||else||<f>||endif||", {{"x", ""}}, "<f>"},
        {nest3, {{"a", "1"}, {"b", "1"}, {"c", "1"}}, "<1><2><3><2b><1b><end>"},
        {nest3, {{"a", "1"}, {"b", "1"}}, "<1><2><3e><2b><1b><end>"},
        {nest3, {{"a", "1"}}, "<1><2e><1b><end>"},
        {nest3, {}, "<1e><end>"},
        // Openings inside skipped text, of either kind, hold their own else and endif.
        {"||ifdef||no||<a>||ifequal||x||x||<b>||else||<c>||endif||<d>||else||<e>||endif||<f>", {}, "<e><f>"},
        {sel, {{"style", "windows"}}, "<y>"},
        {sel, {{"style", "Windows"}}, "<n>"},
        {sel, {{"style", "unix"}}, "<n>"},
        {sel, {}, "<n>"},
        // A variable named like the word changes the sense.
        {sel, {{"style", "unix"}, {"windows", "unix"}}, "<y>"},
        // An empty variable stands for its own name.
        {"||ifequal||name||name||<y>||else||<n>||endif||", {{"name", ""}}, "<y>"},
        {"||ifequal||a||b||<y>||else||<n>||endif||", {{"a", "v"}, {"b", "v"}}, "<y>"},
        {"||ifequal||a||<y>||else||<n>||endif||", {}, "<n>"},
        // A lone endif is nothing; the ifdef name is cut at its bars.
        {"<a>||endif||<b>||ifdef||x||y||<c>", {{"x", "1"}}, "<a><b><c>"},
    };
    for (const Case& c : cases) EXPECT_EQ(render_line(c), c.want) << c.text;
}

TEST(WebTemplate, CuttingSubstitutionAndEscaping) {
    const Case cases[] = {
        {"a | b", {}, "a | b"},
        {"x|y z", {}, "x|y z"},
        {"<p>||unknown|| ok</p>", {}, "<p> ok</p>"},
        {"||domain||, here", {{"domain", "d1"}}, "d1, here"},
        {"<i>||open", {}, "<i>|open"},
        {"||a||b||", {{"a", "A"}}, "Ab|"},
        {"<in value=\"||v||\">", {{"v", "<script>\"x\" & 'y'</script>"}},
         "<in value=\"&lt;script&gt;&#34;x&#34; &amp; &#39;y&#39;&lt;/script&gt;\">"},
        {"||foo_checked||", {{"foo", "TRUE"}}, "checked"},
        {"||foo_checked||", {{"foo", "true"}}, "checked"},
        {"||foo_checked||", {{"foo", "True"}}, "checked"},
        {"||foo_checked||", {{"foo", "yes"}}, ""},
        {"||foo_checked||", {}, ""},
        {"||foo_checked||", {{"foo", "TRUE"}, {"foo_checked", "own"}}, "own"},
        {"||begin_list||<b>||end_list||", {}, "<b>"},
    };
    for (const Case& c : cases) EXPECT_EQ(render_line(c), c.want) << c.text;
}

// The output bound takes a value whole or not at all: never half an entity.
TEST(WebTemplate, SubstitutionBoundNeverCutsAnEntity) {
    WINK w;
    web_var_add(&w, "v", "&<>\"'&");
    std::string full;
    web_var_replace(&w, "ab||v||cd", full, 1000);
    ASSERT_EQ(full, "ab&amp;&lt;&gt;&#34;&#39;&amp;cd");
    for (int outlen = 1; outlen < 40; outlen++) {
        std::string out;
        web_var_replace(&w, "ab||v||cd", out, outlen);
        EXPECT_LT(static_cast<int>(out.size()), outlen);
        EXPECT_EQ(full.compare(0, out.size(), out), 0) << outlen;
        bool has_value = out.find("&amp;&lt;&gt;&#34;&#39;&amp;") != std::string::npos;
        EXPECT_TRUE(has_value || out.find('&') == std::string::npos) << outlen << " " << out;
    }
}

TEST(WebTemplate, VariablesKeepReplaceAndFree) {
    WINK w;
    web_var_add(&w, "a", "1");
    web_var_add(&w, "a", nullptr);
    EXPECT_EQ(web_var_find(&w, "a"), "1");
    web_var_add(&w, "a", std::string("2"));
    EXPECT_EQ(web_var_find(&w, "a"), "2");
    web_var_true(&w, "on", 1);
    web_var_true(&w, "off", 0);
    EXPECT_EQ(web_var_find(&w, "on"), "checked");
    EXPECT_EQ(web_var_find(&w, "off"), "");
    EXPECT_EQ(web_var_find(&w, "none"), "");
    web_var_free(&w);
    EXPECT_EQ(w.vlist, nullptr);
    EXPECT_EQ(web_var_find(&w, "a"), "");
}

void gen_a(WINK* l) { tcp_write(l->c, "<G1>", 4); }
void gen_b(WINK* l) { tcp_write(l->c, "<G2>", 4); }

TEST(WebTemplate, GeneratorsWriteRawHtmlAndDropTheRestOfThePiece) {
    web_callback_add("gen", gen_a);
    {
        Page p;
        p.set({{"gen", "variable"}});
        web_show_line(&p.w, "<a>||gen||trail <b>", nullptr, "t.htm");
        EXPECT_EQ(p.out(), "<a><G1> <b>");
    }
    web_callback_add("GEN", gen_b);  // the latest wins
    {
        Page p;
        web_show_line(&p.w, "||gen||", nullptr, "t.htm");
        EXPECT_EQ(p.out(), "<G2>");
    }
    EXPECT_EQ(web_callback_remove("Gen"), 1);
    EXPECT_EQ(web_callback_remove("gen"), 1);
    EXPECT_EQ(web_callback_remove("gen"), 0);
    {
        Page p;
        web_show_line(&p.w, "<x>||gen||", nullptr, "t.htm");
        EXPECT_EQ(p.out(), "<x>");
    }
    web_callback_free();
}

class WebTemplateFiles : public ::testing::Test {
  protected:
    void SetUp() override { web_set_dir(dir.path()); }
    void TearDown() override { web_set_dir("web"); }
    void file(const std::string& name, const std::string& text) { write_file(dir.file(name), text); }
    TempDir dir{"webtpl"};
};

int list_calls = 0;

// Three items; odd ones set `odd`. The second holds text to escape.
int list_items(WINK* l, const std::string& unit, const WEB_CB_MAPPINGS* m, const char* filename) {
    list_calls++;
    const char* items[] = {"a", "<b>", "c"};
    for (int i = 0; i < 3; i++) {
        web_var_add(l, "item", items[i]);
        web_var_add(l, "odd", i % 2 == 0 ? "1" : "");
        if (!web_show_line(l, unit, m, filename)) return 0;
    }
    return 1;
}

int list_other(WINK* l, const std::string& unit, const WEB_CB_MAPPINGS* m, const char* filename) {
    list_calls++;
    web_var_add(l, "item", "x");
    return web_show_line(l, unit, m, filename);
}

const WEB_CB_MAPPINGS kMappings[] = {
    {"list.htm", "", list_items},
    {"list.htm", "_two", list_other},
    {"big.htm", "", list_items},
    {nullptr, nullptr, nullptr},
};

const char* kListBody =
    "<ul>\n"
    "||begin_list||\n"
    "<li>||item|| ||ifdef||odd|| * ||endif||</li>\n"
    "||end_list||\n"
    "</ul>\n";

TEST_F(WebTemplateFiles, ListsRenderTheirBodyPerItemOnlyWhereTheTableHasARow) {
    file("list.htm", std::string("||end_list||<0>\n") + kListBody + "||begin_list_two||<t>||item||</t>||end_list_two||\n");
    file("plain.htm", kListBody);
    file("outer.htm", "<o>||include||list.htm||</o>\n");
    const std::string list_out =
        "<0>\n<ul>\n"
        "<li>a  * </li>\n<li>&lt;b&gt; </li>\n<li>c  * </li>\n"
        "</ul>\n"
        "<t>x</t>";
    struct {
        const char* file;
        int calls;
        std::string want;
    } cases[] = {
        {"list.htm", 2, list_out},
        // Matched under the included file's name.
        {"outer.htm", 2, "<o>" + list_out + "</o>\n"},
        // No row: the list directives vanish, the body shows once.
        {"plain.htm", 0, "<ul>\n\n<li> </li>\n\n</ul>\n"},
    };
    for (const auto& c : cases) {
        list_calls = 0;
        Page p;
        EXPECT_EQ(web_showfile(&p.w, c.file, kMappings), 1);
        EXPECT_EQ(p.out(), c.want) << c.file;
        EXPECT_EQ(list_calls, c.calls) << c.file;
    }
}

TEST_F(WebTemplateFiles, ListBodyOverItsBoundStopsThatFile) {
    std::string big = "<top>\n||begin_list||\n";
    for (int i = 0; i < 400; i++) big += std::string(99, 'x') + "\n";
    big += "||end_list||\n<after>\n";
    file("big.htm", big);
    list_calls = 0;
    {
        Page p;
        EXPECT_EQ(web_showfile(&p.w, "big.htm", kMappings), 1);
        EXPECT_EQ(p.out(), "<top>\n");
    }
    EXPECT_EQ(list_calls, 0);
    // A piece fits while both lengths and 10 stay within the bound.
    Page p;
    p.w.tpl = std::make_unique<std::string>(kTplListMax - 21, 'y');
    EXPECT_EQ(web_show_linex(&p.w, "0123456789", kMappings, "big.htm"), 1);
    EXPECT_EQ(web_show_linex(&p.w, "0", kMappings, "big.htm"), 1);
    EXPECT_EQ(web_show_linex(&p.w, "0", kMappings, "big.htm"), 0);
    EXPECT_EQ(p.w.tpl->size(), static_cast<size_t>(kTplListMax - 10));
}

TEST_F(WebTemplateFiles, IncludesNestAndABoundStopsSelfInclusion) {
    file("a.htm", "<a>||include||b.htm||<a2>||showing_template||\n");
    file("b.htm", "<b>||showing_template||</b>\n");
    file("self.htm", "<s>||include||self.htm||\n");
    {
        Page p;
        web_showfile(&p.w, "a.htm", nullptr);
        EXPECT_EQ(p.out(), "<a><b>b.htm</b>\n<a2>b.htm\n");
    }
    {
        Page p;
        EXPECT_EQ(web_showfile_first(&p.w, "self.htm", nullptr), 1);
        std::string want;
        for (int i = 0; i < 16; i++) want += "<s>";
        EXPECT_EQ(p.out(), want);
    }
    // The bound is per page: the next page on this thread starts at the top.
    Page p;
    web_showfile(&p.w, "b.htm", nullptr);
    EXPECT_EQ(p.out(), "<b>b.htm</b>\n");
}

TEST_F(WebTemplateFiles, MissingFileLongLinesAndTheUniqueVariable) {
    file("long.htm", std::string(997, 'x') + "||v||\n");
    file("u.htm", "||unique||\n");
    {
        Page p;
        p.set({{"v", "V"}});
        EXPECT_EQ(web_showfile(&p.w, "long.htm", nullptr), 1);
        // Read in pieces of 998: the directive is cut in two and does not apply.
        EXPECT_EQ(p.out(), std::string(997, 'x') + "||v|\n");
    }
    {
        Page p;
        web_var_add(&p.w, "unique", "stale");
        web_showfile(&p.w, "u.htm", nullptr);
        std::string out = p.out();
        EXPECT_NE(out, "stale\n");
        EXPECT_GT(std::stoll(out), 1700000000LL);
    }
    Page p;
    tcp_write(p.w.c, "<head>", 6);
    EXPECT_EQ(web_showfile(&p.w, "nope.htm", nullptr), 1);
    EXPECT_EQ(p.out(), "<head>HTTP/1.0 550 Sorry, no such template (" + dir.file("nope.htm") +
                           ")\r\n\r\nNo such template\r\n");
}

using Vars = std::vector<std::pair<const char*, const char*>>;

TEST_F(WebTemplateFiles, TwoThreadsRenderTheirOwnPages) {
    file("one.htm", "||ifdef||skip||<no>||else||<one ||name||>||endif|| ||gen||\n");
    file("two.htm", "||ifequal||k||v||<two ||name||>||else||<no>||endif||\n");
    web_callback_add("gen", gen_a);
    auto run = [](const char* page, Vars vars, const std::string& want, std::string* bad) {
        for (int i = 0; i < 200 && bad->empty(); i++) {
            Page p;
            for (const auto& [k, v] : vars) web_var_add(&p.w, k, v);
            web_showfile(&p.w, page, nullptr);
            std::string out = p.out();
            if (out != want) *bad = out;
        }
    };
    std::string bad1, bad2;
    std::thread t1(run, "one.htm", Vars{{"name", "1"}}, "<one 1> <G1>", &bad1);
    std::thread t2(run, "two.htm", Vars{{"name", "2"}, {"k", "v"}}, "<two 2>", &bad2);
    t1.join();
    t2.join();
    web_callback_free();
    EXPECT_EQ(bad1, "");
    EXPECT_EQ(bad2, "");
}

}  // namespace
}  // namespace korv
