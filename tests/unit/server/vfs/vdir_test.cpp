// Virtual paths: simplification and separator forms as pure text, then with a
// class's rules loaded: alias choice and its tie rules, rule-field expansion,
// the tilde step, vdir_fname's refusals, the access words, the symlink test
// and the start of directory scans.
#include "server/vfs/vdir.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/vfs/vdir_rules.h"

namespace korv {
namespace {

const char* const X = "INVALID";

std::string simplify(std::string_view path, std::string_view name) {
  std::string out = "junk";
  return vdir_simplify(out, path, name) ? out : out.empty() ? X : "INVALID, not emptied";
}

TEST(VdirPath, SimplifyTable) {
  struct Case {
    const char *path, *name, *want;
  } cases[] = {
      {"/dir/bob", "dir/../.../bob", X}, {"/", "..", X}, {"/dir/bob", "dir/../../../../bob", X},
      {"/./././././././", "..", X}, {"/dir/bob", "dir/../../bob", "/dir/bob"},
      {"/./././././././", ".", "/"}, {"/a/./b/./c/./d/", "..", "/a/b/c"},
      {"/a/b/c/d/", "..", "/a/b/c"}, {"/a/b/c/d", "..", "/a/b/c"}, {"/a/b/c/", "..", "/a/b"},
      {"/a/b/c", "..", "/a/b"}, {"/a/b/", "..", "/a"}, {"/a/b", "..", "/a"}, {"/a/", "..", "/"},
      {"/a", "..", "/"}, {"/dir/bob", "..", "/dir"}, {"/dir/a", "..", "/dir"}, {"/dir", "..", "/"},
      {"/dir/", "..", "/"}, {"/bob", ".", "/bob"}, {"/bob/", ".", "/bob"}, {"/bob/", "~", "/bob/~"},
      // Refused at the step that climbs above the root, though the end is low.
      {"/a", "../../b", X}, {"/x", "a.../b", X}, {"/x", "/...", X}, {"/x", "a...b", "/x/a...b"},
      {"/x", "..a/b..", "/x/..a/b.."}, {"/x", "//a///b//", "/a/b"}, {"/x", "\\y\\..\\z", "/z"},
      {"/x", "", "/x"}, {"a", "b", "a/b"}, {"a", "..", X}, {"", "..", X},
  };
  for (const Case& c : cases) EXPECT_EQ(simplify(c.path, c.name), c.want) << c.path << " + " << c.name;
  // Client text ends at a NUL byte: nothing behind it can climb.
  EXPECT_EQ(simplify("/x", std::string_view("a\0/../../..", 11)), "/x/a");
}

// A path past a bound is refused whole: a cut would name another file.
TEST(VdirPath, SimplifyRefusesWhatItWouldCut) {
  std::string c100, c101;
  for (int i = 0; i < 100; i++) c100 += "/c";
  c101 = c100 + "/c";
  std::string x218(218, 'x'), x230(230, 'x');
  struct Case {
    std::string path, name, want;
  } cases[] = {
      {"/", c100, c100},
      {"/", c101, X},
      // No component is started at 220 or beyond, but one started below is whole.
      {"/", "/" + x218 + "/yyyy", "/" + x218 + "/yyyy"},
      {"/", "/" + x218 + "/yyyy/zzz", X},
      {"/", "/" + x230, "/" + x230},
      {"/", "/" + x230 + "/not-this-file", X},
      {"/" + x230, "not-this-file", X},
      {"/", "/" + x230 + "/..", "/"},
      {"/", "/" + std::string(998, 'n'), "/" + std::string(998, 'n')},
      {"/", "/" + std::string(999, 'n'), X},
      {"/d", std::string(995, 'n'), "/d/" + std::string(995, 'n')},
      {"/d", std::string(996, 'n'), X},
  };
  for (const Case& c : cases)
    EXPECT_EQ(simplify(c.path, c.name), c.want) << c.path.size() << " + " << c.name.size();
}

TEST(VdirPath, SlashFormsAndHelpers) {
  using Fn = std::string& (*)(std::string&);
  struct Case {
    Fn fn;
    const char *in, *want;
  } cases[] = {
      {vdir_fixslash, "a\\\\b/c", "a//b/c"},     {vdir_fixslash_show_linux, "//a\\/b//", "/a/b/"},
      {vdir_fixslash_show_dos, "/a//b/", "\\a\\b\\"}, {vdir_fixslash_show_dos, "/c:/x//y", "c:\\x\\y"},
      {vdir_fixslash_show_dos, "//host/share", "\\\\host\\share"},
      {vdir_remove_trailing, "/a/", "/a"}, {vdir_remove_trailing, "/", "/"},
      {vdir_remove_trailing, "a/", "a/"},
  };
  for (const Case& c : cases) {
    std::string s = c.in;
    EXPECT_EQ(c.fn(s), c.want) << c.in;
  }
  std::string out;
  EXPECT_TRUE(vdir_xlate(out, "/srv/pub", "/srv/pub", "/pub") && out == "/");
  EXPECT_TRUE(vdir_xlate(out, "/srv/pub/a/b", "/srv/pub", "/pub") && out == "/pub/a/b");
  EXPECT_TRUE(vdir_xlate(out, "/srv/pub/a", "/srv/pub", "/") && out == "/a");
  EXPECT_TRUE(!vdir_xlate(out, "/srv", "/srv/pub", "/pub") && out == "/srv");

  vdir_only_unix_slash(1);  // a backslash is then part of a name
  EXPECT_EQ(simplify("/x", "a\\..\\b"), "/x/a\\..\\b");
  std::string s = "a\\\\b//c";
  EXPECT_EQ(vdir_fixslash(vdir_fixslash_show_linux(s)), "a\\\\b/c");
  vdir_only_unix_slash(0);
}

class VdirIni : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    char tmpl[] = "/tmp/vdir_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    emsg_open((dir_ + "/korvane.log").c_str());
  }
  void TearDown() override {
    ini_free(&l_);
    ini_free_all();
    emsg_open("");
    if (system(("rm -rf '" + dir_ + "'").c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }
  // One domain, one class for "bob" with homes under /u, and the given rules.
  void load(const std::string& rules, const std::string& globals = "") {
    ini_free(&l_);
    ini_free_all();
    std::string path = dir_ + "/k.ini";
    std::ofstream(path) << "global_settings\n" << globals << "vdomain address=\"\" name=\"d\"\n"
                        << "class type=real\nuser_home /u\n" << rules;
    ASSERT_EQ(ini_read("korvane", path.c_str()), 1);
    ASSERT_EQ(ini_setdomain(&l_, ""), 1);
    std::string reason;
    ASSERT_EQ(ini_setclass(&l_, "bob", reason), 1) << reason;
    l_.user = "bob";
    l_.vcwd = "/";
  }
  // The real path of `fname` from `vcwd`, or "FAIL: <etext>".
  std::string real(const char* fname, const char* vcwd = "/") {
    std::string realpath, virt, etext;
    l_.vcwd = vcwd;
    return vdir_fname(realpath, virt, &l_, fname, etext) ? realpath : "FAIL: " + etext;
  }
  std::string logged() {
    emsg_flush();
    std::stringstream ss;
    ss << std::ifstream(dir_ + "/korvane.log").rdbuf();
    return ss.str();
  }
  std::string dir_;
  Link l_;
};

TEST_F(VdirIni, LongestAliasWinsAndTheRootTakesTheRest) {
  load("dir alias=\"/\" path=\"~\" read=true\ndir alias=\"/pub\" path=\"/srv/pub/\" read=true\n");
  struct Case {
    const char *vcwd, *fname, *want;
  } cases[] = {
      {"/", "/pub/x", "/srv/pub/x"}, {"/", "/pub", "/srv/pub"},
      {"/", "/public", "/u/bob/public"},  // "/pub" covers only whole components
      {"/", "/PUB/x", "/u/bob/PUB/x"},    // case-sensitive
      {"/", "/", "/u/bob"}, {"/pub", "x/", "/srv/pub/x"}, {"/pub", "../etc", "/u/bob/etc"},
      {"/", "~", "/u/bob/~"},  // a client's tilde is an ordinary name
      {"/pub", "../../x", "FAIL: Invalid virtual path"},
  };
  for (const Case& c : cases) EXPECT_EQ(real(c.fname, c.vcwd), c.want) << c.vcwd << " + " << c.fname;
  std::string realpath, virt, etext;
  l_.vcwd = "/";
  ASSERT_EQ(vdir_fname(realpath, virt, &l_, "pub//a/./b", etext), 1);
  EXPECT_EQ(virt + " " + l_.tmp_virtual + " " + l_.tmp_real, "/pub/a/b /pub /srv/pub");

  l_.dirstyle = 1;  // a Windows-style session matches in its own form
  ASSERT_EQ(vdir_fname(realpath, virt, &l_, "\\pub\\x", etext), 1) << etext;
  EXPECT_EQ(realpath + " " + virt, "/srv/pub/x \\pub\\x");
  EXPECT_EQ(real("/a/b"), "/u/bob/a/b");
}

TEST_F(VdirIni, TieRules) {
  load("dir alias=\"/\" path=\"/one\"\ndir alias=\"/\" path=\"/two\"\n"
       "dir alias=\"/pub\" path=\"/p1\"\ndir alias=\"/pub\" path=\"/p2\"\n"
       "group_resource group=staff alias=\"/\" path=\"/three\"\n"
       "group_resource group=staff alias=\"/pub\" path=\"/p3\"\n"
       "group_resource group=staff alias=\"/pub/deep\" path=\"/deep\"\n");
  // The last "/" rule governs; the first of two equal longer ones wins.
  EXPECT_EQ(real("/x"), "/two/x");
  EXPECT_EQ(real("/pub/x"), "/p1/x");
  EXPECT_EQ(real("/pub/deep/x"), "/p1/deep/x");  // not a member: group rules skipped
  l_.utoken.reset(new UTOKEN);
  word_add(l_.utoken->usergroups, "staff");
  EXPECT_EQ(real("/x"), "/three/x");  // a group's root rule overrides every dir root
  EXPECT_EQ(real("/pub/x"), "/p1/x");
  EXPECT_EQ(real("/pub/deep/x"), "/deep/x");
}

TEST_F(VdirIni, RuleFieldsExpandHomeAndUserName) {
  load("dir alias=\"/~\" path=\"/data/$username/\"\ndir alias=\"/h\" path=\"~/files\"\n");
  EXPECT_EQ(real("/u/bob/x"), "/data/bob/x");
  EXPECT_EQ(real("/h/y"), "/u/bob/files/y");
  EXPECT_EQ(real("/u/ann"), "FAIL: No matching directory for alias (/u/ann) ");
  EXPECT_NE(logged().find("No alias found (/u/ann) (bob)"), std::string::npos);

  std::string out = "~";
  EXPECT_EQ(vdir_apply_tilde(&l_, out, out), "/u/bob");  // in place
  for (auto [in, want] : {std::pair{"~/a/b", "/u/bob/a/b"}, {"~ann/x", "/u/ann/x"}, {"~ann", "/u/ann"},
                          {"/x~", "/x~"}})
    EXPECT_EQ(vdir_apply_tilde(&l_, in, out), want) << in;
  load("");  // no rules: nothing exists
  EXPECT_EQ(real("/x"), "FAIL: No matching directory for alias (/x) ");
}

// Both faults need a relative current directory, which a first rule with a
// relative alias gives a session as its home.
TEST_F(VdirIni, RelativeDirectoryCannotClimbOutOfAlias) {
  load("dir alias=\"/\" path=\"/jail\"\ndir alias=\"/u\" path=\"/srv/u\"\n"
       "dir alias=\"a\" path=\"/srv/a\"\n");
  EXPECT_EQ(real("../~../x", "b"), "/jail/x");  // "~../x": the home of ".." is "/u/.."
  EXPECT_EQ(real("../a../x", "b"), "FAIL: No matching directory for alias (a../x) ");
  EXPECT_EQ(real("../a/x", "b"), "/srv/a/x");
}

TEST_F(VdirIni, AccessWords) {
  load("dir alias=\"/ro\" path=\"/s/ro\" read=true\n"
       "dir alias=\"/rw\" path=\"/s/rw\" read=true write=true nodel=true\n"
       "dir alias=\"/mk\" path=\"/s/mk\" write=true nomkdir=true\n"
       "dir alias=\"/nl\" path=\"/s/nl\" read=true nolist=true\n"
       "dir alias=\"/none\" path=\"/s/none\"\n");
  const char* modes[] = {"read", "write", "mkdir", "nomkdir", "nolist", "list", "nodel", "del", "rename"};
  // One digit per mode above.
  // "del" needs write: read alone is read-only.
  for (auto [path, want] : {std::pair{"/ro/f", "100001000"}, {"/rw/f", "111001100"},
                            {"/mk/f", "010101011"}, {"/nl/f", "100010000"}, {"/none/f", "000001000"}}) {
    std::string got, etext;
    for (const char* m : modes) got += vdir_access(&l_, path, m, etext) ? '1' : '0';
    EXPECT_EQ(got, want) << path;
  }
  std::string etext;
  l_.vcwd = "/ro";
  EXPECT_EQ(vdir_access(&l_, "f", "write", etext), 0);
  EXPECT_EQ(etext, "write access denied (/ro/f)");
  EXPECT_EQ(vdir_access(&l_, "f", "read", etext), 1);
  EXPECT_EQ(etext, "read access allowed (/ro/f)");
  EXPECT_EQ(vdir_access(&l_, "f", "bogus", etext), 0);
  EXPECT_EQ(etext, "bogus access denied (/ro/f)");
  EXPECT_NE(logged().find("unknown access type bogus."), std::string::npos);
  EXPECT_EQ(vdir_access(&l_, "../../x", "read", etext), 0);
  EXPECT_EQ(etext, "Invalid virtual path");
  EXPECT_EQ(vdir_access(&l_, "/elsewhere", "read", etext), 0);
  EXPECT_EQ(etext, "No matching virtual directory or alias (/elsewhere)");
}

TEST_F(VdirIni, SymlinksBelowTheAliasAreRefused) {
  ASSERT_EQ(system(("mkdir -p '" + dir_ + "/root/pub/real'").c_str()), 0);
  ASSERT_EQ(symlink((dir_ + "/root/pub/real").c_str(), (dir_ + "/root/pub/link").c_str()), 0);
  ASSERT_EQ(symlink((dir_ + "/root").c_str(), (dir_ + "/top").c_str()), 0);
  std::string top = dir_ + "/top/pub";  // the alias's own path runs through a link above it
  std::string rule = "dir alias=\"/pub\" path=\"" + top + "\" read=true\n";
  load(rule, "global_nosymlink true\n");
  EXPECT_EQ(real("/pub/real/f"), top + "/real/f");
  EXPECT_EQ(real("/pub"), top);
  EXPECT_EQ(real("/pub/link/f"), "FAIL: Symlink found in path (" + top + "/link) access denied");
  EXPECT_EQ(real("/pub/link"), "FAIL: Symlink found in path (" + top + "/link) access denied");
  std::string found;
  EXPECT_EQ(symlink_check(dir_ + "/top", top, found), 1);  // the root itself is tested first
  EXPECT_EQ(found, dir_ + "/top");
  load(rule);
  EXPECT_EQ(real("/pub/link/f"), top + "/link/f");
}

TEST_F(VdirIni, ScansListWhatTheRulesAllow) {
  std::string t = dir_ + "/t";
  ASSERT_EQ(system(("cd '" + dir_ + "' && mkdir -p t/empty t/sub t/secret && touch t/a t/sub/s "
                    "t/secret/hidden").c_str()), 0);
  std::string rules = "dir alias=\"/t\" path=\"" + t + "\" read=true\n" + "dir alias=\"/t/secret\" path=\"" +
                      t + "/secret\" read=true nolist=true\n";
  load(rules);
  int isdir = 0;
  std::string etext;
  auto names = [&](const char* fname, int rec) {
    TreeHandlePtr hh;
    WILD_DATA d;
    std::string out;
    if (!vdir_tree_first(&l_, hh, fname, rec, &d, &isdir, etext)) return std::string("NONE ") + etext;
    do out += d.name.substr(t.size()) + " ";
    while (tree_next(hh.get(), &d));
    return out;
  };
  EXPECT_EQ(names("/t", 0), "/a /empty /secret /sub ");
  EXPECT_EQ(isdir, 1);
  EXPECT_EQ(names("/t/empty", 0), "NONE (no files in directory).");
  EXPECT_EQ(names("/t/*.zzz", 0), "NONE Nothing found (/t/*.zzz)");
  EXPECT_EQ(names("/t/secret", 0), "NONE Virtual list access denied (/t/secret)");
  EXPECT_EQ(names("/nowhere", 0), "NONE No matching directory for alias (/nowhere) ");

  // A recursive scan does not enter a directory whose rule forbids listing.
  // The top of an alias maps back to "/", so the root rule decides it.
  load(rules + "dir alias=\"/\" path=\"" + dir_ + "\"\n", "unix_list true\n");
  std::string all = names("/t", 1);
  EXPECT_NE(all.find(" /secret "), std::string::npos) << all;
  EXPECT_NE(all.find(" /sub/s "), std::string::npos) << all;
  EXPECT_EQ(all.find("hidden"), std::string::npos) << all;

  EXPECT_EQ(l_.impersonate, 0);  // every path out of a scan reverted
}

}  // namespace
}  // namespace korv
