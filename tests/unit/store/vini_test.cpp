// The settings store's file: tokens, the grammar and its messages, lookups
// and cursors, and the writer read back.
#include "store/vini.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>

#include "tests/unit/store/vini_fixture.h"

namespace korv {
namespace {

using namespace testing_vini;

std::vector<std::string> tokens(const std::string& text, int tmax = kViniMaxTokens) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back(0);
  std::vector<char*> p(static_cast<size_t>(tmax));
  int n = vini_token_quote(buf.data(), p.data(), tmax);
  return std::vector<std::string>(p.begin(), p.begin() + n);
}

TEST_F(ViniTest, TokensSplitOnBlanksEqualsAndQuotes) {
  using V = std::vector<std::string>;
  struct Case {
    const char* in;
    V want;
  } cases[] = {
      {"a=b", V{"a", "=", "b"}},
      {"a = b", V{"a", "=", "b"}},
      {"a=\"b\"", V{"a", "=", "b"}},
      {"home \"/x y\"", V{"home", "/x y"}},
      {"x \"a=b\tc\"", V{"x", "a=b\tc"}},
      {"k=\"\"", V{"k", "=", ""}},
      {"=v", V{"=", "v"}},
      {"a==b", V{"a", "=", "=", "b"}},
      {"open \"rest of  line", V{"open", "rest of  line"}},
      {"\"a\"b", V{"a", "b"}},
      {" \t a\t\tb  ", V{"a", "b"}},
      {"", V{}},
      {"   \t", V{}},
  };
  for (const auto& c : cases) EXPECT_EQ(tokens(c.in), c.want) << "input: " << c.in;
}

TEST_F(ViniTest, TooManyTokensStopsFiveShortOfTheLimit) {
  load(kBasicFile);  // sets the log callback
  std::string line;
  for (int i = 0; i < 100; i++) line += "w" + std::to_string(i) + " ";
  EXPECT_EQ(tokens(line).size(), static_cast<size_t>(kViniMaxTokens - 5));
  EXPECT_EQ(logs(), std::vector<std::string>{"Too many tokens in this header line\n"});
  clear_captured();
  EXPECT_EQ(tokens("a b c", 8).size(), 3u);  // exactly enough room: no message
  EXPECT_TRUE(logs().empty());
}

// Each bad line is logged with its text and skipped; valid lines load.
TEST_F(ViniTest, EveryLoaderMessageAndWhatIsKept) {
  struct Case {
    const char* body;  // placed after "global_settings\nvdomain name=d\n"
    std::vector<std::string> logs;
    bool printed;
  } cases[] = {
      {"bogus_setting 1\n", {"Invalid ini setting (bogus_setting)\n"}, false},
      {"limit_users 3\n", {"Is a class setting but we are not in a class section (limit_users)\n"},
       true},
      {"class type=real\nemail x\n", {"Not a class setting (email)\n"}, true},
      {"log_level debug\nlog_level error\n", {"Duplicate setting ignored (log_level)\n"}, false},
      {"class type=real\ndir alias \"a\" path=b\n", {"Equals sign missing after (alias)\n"}, false},
      {"class type=real\ndir bogus=\"a\"\n",
       {"Invalid parameter (bogus)\n", "Valid parameters for dir (alias)\n",
        "Valid parameters for dir (path)\n", "Valid parameters for dir (read)\n",
        "Valid parameters for dir (write)\n"},
       false},
      {"class type=real\ndir alias=a alias=b\n",
       {"Duplicate paramter ignored (alias) was set to (a)\n"}, false},
      {"lonely\n# comment line\n   #indented comment\n\n", {}, false},
  };
  for (const auto& c : cases) {
    load(std::string("global_settings\nvdomain name=d\n") + c.body);
    EXPECT_EQ(logs(), c.logs) << c.body;
    EXPECT_EQ(!prints().empty(), c.printed) << c.body;
    EXPECT_STREQ(vini_get_p(nullptr, VDOMAIN, "name"), "d") << c.body;
  }
  load("email early\nvdomain name=d\nemail later\n");
  EXPECT_EQ(logs(), std::vector<std::string>{"Invalid setting (email) before vdomain line\n"});
  EXPECT_EQ(prints(), std::vector<std::string>{"Invalid setting (email) before vdomain line\n"});
  EXPECT_STREQ(vini_get(nullptr, EMAIL), "later");
}

TEST_F(ViniTest, ValuesOfOneAndOfSeveralParameters) {
  load("global_settings\n"
       "home = \"/x\"\n"              // one parameter: token 1 is the value, "="
       "global_port 2121 extra\n"     // further tokens ignored
       "global_thread_reuse On\n"     // a bool "on" becomes TRUE and reads true
       "vdomain address=\"1.2.3.4\" name=\"d\"\n"
       "class type=real\n"
       "dir alias=\"/a\" path=\"/b\" read=on write=TRUE\n"
       "dir alias=/c path=/d read=true bad=1 write=true\n");
  EXPECT_STREQ(vini_get(nullptr, HOME), "=");
  EXPECT_EQ(vini_geti(nullptr, PORT), 2121);
  EXPECT_STREQ(vini_get(nullptr, REUSE), "TRUE");
  EXPECT_EQ(vini_true(nullptr, REUSE), 1);
  IniHandlePtr h = vini_handle();
  h->cls = vini_domains()[0]->classes[0].get();
  INIPARAM ip;
  ASSERT_NE(vini_find_ptr(h.get(), DIR, &ip), nullptr);
  EXPECT_STREQ(vini_cur_ptr(&ip, "path"), "/b");
  EXPECT_STREQ(vini_cur_ptr(&ip, "read"), "TRUE");
  EXPECT_EQ(ip.v->vali[2], 0);  // several parameters: only exact "true" sets vali
  EXPECT_EQ(vini_cur_ptr_true(&ip, "read"), 1);
  EXPECT_EQ(vini_cur_ptr_true(&ip, "write"), 1);
  ASSERT_EQ(vini_next_ptr(&ip), 1);
  EXPECT_STREQ(vini_cur_ptr(&ip, "read"), "true");
  EXPECT_EQ(ip.v->vali[2], 1);
  EXPECT_STREQ(vini_cur_ptr(&ip, "write"), "");  // stopped at the rejected triple
  EXPECT_EQ(vini_cur_ptr_true(&ip, "write"), 0);
}

TEST_F(ViniTest, SectionsMakeDomainsAndClasses) {
  struct Case {
    const char* text;
    std::vector<size_t> classes;  // per domain
  } cases[] = {
      {"global_settings\nvdomain name=a\nclass type=real\nvdomain name=b\n", {1, 0}},
      {"vdomain name=a\nclass type=real\nclass type=anonymous\n", {2}},
      {"global_settings\nhome /h\nclass type=real\nvdomain name=b\nclass type=real\n", {1, 1}},
      {"global_settings\nglobal_settings\nvdomain name=b\n", {0, 0}},
  };
  for (const auto& c : cases) {
    load(c.text);
    ASSERT_EQ(vini_domains().size(), c.classes.size()) << c.text;
    for (size_t i = 0; i < c.classes.size(); i++)
      EXPECT_EQ(vini_domains()[i]->classes.size(), c.classes[i]) << c.text;
  }
  // Without global_settings the first vdomain is also the global table.
  load("vdomain name=a\nhome /h\n");
  EXPECT_STREQ(vini_get(nullptr, HOME), "/h");
}

TEST_F(ViniTest, LookupsFollowDomainClassAndGlobalRules) {
  load(std::string(kBasicFile) +
       "vdomain address=\"10.0.0.1\" name=\"second\"\n"
       "\temail \"second@example.org\"\n"
       "\thome \"/ignored\"\n"
       "\tclass type=real\n");
  IniHandlePtr h = vini_handle();
  vini_switch_table(h.get(), vini_domains()[1].get());
  EXPECT_STREQ(vini_get(h.get(), EMAIL), "second@example.org");
  EXPECT_STREQ(vini_get(h.get(), HOME), "/srv/k");  // globals come from the first domain
  h->cls = vini_domains()[1]->classes[0].get();
  EXPECT_STREQ(vini_get(h.get(), EMAIL), "second@example.org");  // domain-level despite the class
  EXPECT_STREQ(vini_get(h.get(), LIMIT), "");  // no fall-back from class to anything
  EXPECT_EQ(vini_find(h.get(), DIR), 0);
  vini_switch_table(h.get(), vini_domains()[0].get());
  EXPECT_EQ(h->cls, nullptr);  // a move drops the old domain's class
  EXPECT_STREQ(vini_get(h.get(), LIMIT), "");  // no class yet: defaults
  h->cls = vini_domains()[0]->classes[0].get();
  EXPECT_EQ(vini_geti(h.get(), LIMIT), 7);
  EXPECT_STREQ(vini_get(h.get(), MAX_AGE), "30");
  EXPECT_STREQ(vini_get_p(h.get(), CLASS, "class_name"), "everyone");
  EXPECT_STREQ(vini_get_p(h.get(), CLASS, "groups"), "");
  EXPECT_STREQ(vini_get_name("EMAIL"), "admin@example.org");
  EXPECT_STREQ(vini_get_name("nothing_of_that_name"), "");
}

TEST_F(ViniTest, BoolDefaultsAreSeenOnlyByGlobalIstrue) {
  load("global_settings\nvdomain name=d\n");
  EXPECT_EQ(vini_true(nullptr, REUSE), 0);
  EXPECT_EQ(vini_global_istrue(REUSE), 1);
  EXPECT_EQ(vini_global_istrue(STRIP), 1);
  load("global_settings\nglobal_strip_user_domain false\nvdomain name=d\n");
  EXPECT_EQ(vini_global_istrue(STRIP), 0);
  struct {
    const char* s;
    int want;
  } cases[] = {{"true", 1}, {"TRUE", 1}, {"trueish", 1}, {"tru", 0}, {"on", 0}, {"", 0}};
  for (const auto& c : cases) EXPECT_EQ(is_str_true(c.s), c.want) << c.s;
  EXPECT_EQ(is_str_true(nullptr), 0);
}

TEST_F(ViniTest, CursorsWalkChainsInFileOrder) {
  load(kBasicFile);
  IniHandlePtr h = vini_handle();
  h->cls = vini_domains()[0]->classes[0].get();
  std::vector<std::string> seen;
  for (int ok = vini_find(h.get(), DIR); ok; ok = vini_next(h.get(), DIR)) {
    seen.push_back(vini_cur_p(h.get(), DIR, "alias"));
    // A second walk on the same handle does not disturb the first.
    INIPARAM inner;
    int n = 0;
    for (INIPARAM* q = vini_find_ptr(h.get(), DIR, &inner); q && n < 10; n++)
      if (!vini_next_ptr(q)) break;
    EXPECT_EQ(n, 2);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"/", "/pub", "/in"}));
  EXPECT_STREQ(vini_cur_p(h.get(), DIR, "alias"), "/in");  // stays on the last value
  EXPECT_EQ(vini_cur_p_true(h.get(), DIR, "write"), 1);
  EXPECT_EQ(vini_cur_p_true(h.get(), DIR, "read"), 0);
}

TEST_F(ViniTest, WriteThenReadGivesTheSameTables) {
  std::string longv(600, 'v');
  std::string original =
      "# a hand-written comment\n"
      "global_settings\n"
      "home \"/srv/a b\"\n"
      "log_level info\n"  // equals its default: dropped
      "global_port \"2121\"\n"
      "global_strip_user_domain off\n"
      "vdomain address = \"\" chroot=\"\" name=\"main\"\n"
      "email \"x=y\ttab\"\n"
      "email \"dup\"\n"  // duplicate, kept and written back
      "deny_msg \"" + longv + "\"\n"
      "log_max_age 30\n"  // default: dropped
      "class type=\"real\" users=\"*,!bob\" class_name=\"c1\"\n"
      "dir alias=\"/\" path=\"~\" read=true write=\"\"\n"
      "dir alias=\"/x\" path=\"/y\"\n"
      "user_impersonate false\n"  // "false" with an empty default: dropped
      "vdomain address=\"10.1.1.1\" name=\"two\"\n"
      "class type=anonymous\n"
      "limit_users \"5\"\n";
  load(original);
  EXPECT_EQ(logs(), std::vector<std::string>{"Duplicate setting ignored (email)\n"});
  ASSERT_EQ(vini_write(), 1);
  EXPECT_EQ(read_file(path_ + "_old"), original);
  std::string first = read_file(path_);
  std::string dashes(98, '-');
  EXPECT_EQ(first.rfind(
                "# WARNING - so you think you can modify this file by hand?  Not so fast!!!\n"
                "# Ok, you can IF you stop the server process first OR do a RELOAD after making "
                "your\n"
                "# changes OR don't modify anything with the web admin tool before the next "
                "restart\n"
                "# otherwise your changes will be lost.\n# " + dashes + "\n",
                0),
            0u);
  EXPECT_EQ(first.find("log_level"), std::string::npos);
  EXPECT_EQ(first.find("log_max_age"), std::string::npos);
  EXPECT_EQ(first.find("user_impersonate"), std::string::npos);
  EXPECT_NE(first.find("\tdeny_msg \"" + std::string(500, 'v') + "\" \n"), std::string::npos);
  EXPECT_NE(first.find("vdomain address=\"\" chroot=\"\" name=\"main\" \n"), std::string::npos);
  EXPECT_NE(first.find("\t\tdir alias=\"/\" path=\"~\" read=\"true\" write=\"\" \n"),
            std::string::npos);

  load(first);
  EXPECT_TRUE(logs().size() == 1 && logs()[0] == "Duplicate setting ignored (email)\n");
  EXPECT_STREQ(vini_get(nullptr, HOME), "/srv/a b");
  EXPECT_STREQ(vini_get(nullptr, EMAIL), "x=y\ttab");
  EXPECT_EQ(std::string(vini_get(nullptr, DENY_MSG)), std::string(500, 'v'));
  EXPECT_STREQ(vini_get(nullptr, STRIP), "off");
  EXPECT_EQ(vini_global_istrue(STRIP), 0);
  EXPECT_EQ(vini_domains().size(), 2u);
  IniHandlePtr h = vini_handle();
  h->cls = vini_domains()[0]->classes[0].get();
  EXPECT_STREQ(vini_get_p(h.get(), CLASS, "users"), "*,!bob");
  ASSERT_EQ(vini_find(h.get(), DIR), 1);
  EXPECT_STREQ(vini_cur_p(h.get(), DIR, "write"), "");
  EXPECT_EQ(h->v->val[3].has_value(), true);  // given empty stays given
  ASSERT_EQ(vini_next(h.get(), DIR), 1);
  EXPECT_EQ(h->v->val[2].has_value(), false);
  h.reset();
  ASSERT_EQ(vini_write(), 1);
  EXPECT_EQ(read_file(path_), first);  // a fixed point
}

TEST_F(ViniTest, WriteFailureLeavesTablesAndReturnsZero) {
  load(kBasicFile);
  // The file's place is taken by a directory, and so is the backup's.
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((path_ + "_old").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((path_ + "_old/x").c_str(), 0700), 0);
  EXPECT_EQ(vini_write(), 0);
  ASSERT_FALSE(logs().empty());
  EXPECT_EQ(logs().back(), "Could not write korv.new Is a directory\n");
  ASSERT_EQ(prints().size(), 3u);
  EXPECT_EQ(prints()[0].rfind("Remove (" + path_ + "_old) failed ", 0), 0u);
  EXPECT_EQ(prints()[1].rfind("Rename (" + path_ + ") failed ", 0), 0u);
  EXPECT_STREQ(vini_get(nullptr, HOME), "/srv/k");
}

using ViniDeathTest = ViniTest;

TEST_F(ViniDeathTest, FatalFaults) {
  vini_set_print(print_to_stderr);
  EXPECT_DEATH(
      {
        vini_init((dir_ + "/missing.ini").c_str(), capture_log);
        vini_add(0, "vdomain name=string", "", 12, "");
        vini_reload();
      },
      "Could not open \\(.*missing.ini\\) No such file");
  load(kBasicFile);
  vini_set_print(print_to_stderr);
  EXPECT_DEATH(vini_get_p(nullptr, DIR, "nope"), "invalid parameter 5 \\(nope\\)");
  EXPECT_DEATH(vini_add(NCODES + 1, "x string", "", 0, "d"), "FAULT vini add \\(14/13\\)");
  EXPECT_DEATH(vini_add(NCODES, "x wobble", "", 0, "d"), "Invalid ini parameter \\(wobble\\)");
  EXPECT_DEATH(vini_which(nullptr, -1, nullptr), "vini_which x<0");
}

}  // namespace
}  // namespace korv
