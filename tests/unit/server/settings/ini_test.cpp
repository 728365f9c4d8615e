// The server's settings: loading with the real table, the sample files, the
// choice of domain and class, the deny list, the file filters and the
// per-domain paths.
#include "server/settings/ini.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "common/emsg.h"

namespace korv {
namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

struct TestLink : IniLink {
  std::vector<std::string> groups;
  std::string from_ip;
  std::vector<std::string> ini_usergroups() const override { return groups; }
  std::string ini_from_ip() const override { return from_ip; }
};

class IniTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char tmpl[] = "/tmp/ini_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    log_ = dir_ + "/korvane.log";
    emsg_open(log_.c_str());
  }
  void TearDown() override {
    ini_free_all();
    ini_set_dir_sources(nullptr, nullptr);
    vini_set_print(nullptr);
    emsg_open("");
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }
  void load(const std::string& text) {
    ini_free_all();
    std::string path = dir_ + "/k.ini";
    std::ofstream(path) << text;
    ASSERT_EQ(ini_read("korvane", path.c_str()), 1);
  }
  std::string logged() {
    emsg_flush();
    return slurp(log_);
  }
  std::string dir_;
  std::string log_;
};

TEST_F(IniTest, SampleConfigurationsLoadSilently) {
  for (const char* f : {"/config/korvane.ini", "/demo/korvane.ini"}) {
    ini_free_all();
    ASSERT_EQ(ini_read("korvane", (std::string(KORV_SOURCE_DIR) + f).c_str()), 1);
    EXPECT_EQ(logged(), "") << f;
    EXPECT_EQ(vini_domains_count(), 1) << f;
  }
  // The demo's ports, and its two classes.
  EXPECT_EQ(ini_geti(nullptr, INI_GLOBAL_PORT), 2121);
  EXPECT_EQ(ini_geti(nullptr, INI_GLOBAL_IMPLICIT_PORT), 2990);
  EXPECT_EQ(ini_geti(nullptr, INI_GLOBAL_MGR_PORT), 7021);
  EXPECT_EQ(ini_geti(nullptr, INI_GLOBAL_MGR_SSL_PORT), 9021);
  EXPECT_EQ(vini_domains()[0]->classes.size(), 2u);
  EXPECT_EQ(ini_read("korvane", "/nonexistent"), 0);  // already loaded
}

TEST_F(IniTest, TableHasEveryCodeInOrderWithItsKind) {
  load("vdomain name=d\n");
  ASSERT_EQ(vini_max(), INI_COUNT);
  for (int x = 0; x < INI_COUNT; x++) {
    EXPECT_EQ(isyntax[x].code, x);
    int t = vini_get_vartype(x);
    if (x == INI_VDOMAIN) EXPECT_EQ(t, 12);
    else if (x <= INI_DOMAIN_AUTHENT_CMDOPTS) EXPECT_EQ(t, 4) << vini_setting_name(x);
    else if (x == INI_CLASS) EXPECT_EQ(t, 16);
    else if (x == INI_DIR || x == INI_GROUP_RESOURCE || x == INI_FTPHOME_MAP) EXPECT_EQ(t, 1);
    else if (x < INI_HOME) EXPECT_EQ(t, 0) << vini_setting_name(x);
    else EXPECT_EQ(t, 36) << vini_setting_name(x);
  }
  EXPECT_EQ(isyntax[INI_COUNT].cmd, nullptr);
  struct {
    int code;
    const char* name;
    const char* dflt;
  } spot[] = {{INI_SSL, "ssl", "allow"}, {INI_BANNER, "banner", ""},
              {INI_GLOBAL_PORT, "global_port", "21"}, {INI_LOGINFAILS, "loginfails", "5"},
              {INI_GLOBAL_ANON_HAMMER_BLOCK_TIME, "global_anon_hammer_block_time", "240"},
              {INI_UNIX_LIST, "unix_list", ""}, {INI_FTPHOME_MAP, "ftphome_map", ""}};
  for (const auto& s : spot) {
    EXPECT_STREQ(vini_setting_name(s.code), s.name);
    EXPECT_STREQ(ini_get(nullptr, s.code), s.dflt) << s.name;
  }
  EXPECT_EQ(vini_get_np(INI_GROUP_RESOURCE), 8);
  EXPECT_EQ(ini_true(nullptr, INI_GLOBAL_THREAD_REUSE), 0);  // its "true" default is not read
}

const char* const kDomains =
    "global_settings\n"
    "vdomain address=\"10.0.0.1\" name=\"first\"\n"
    "vdomain address=\"\" name=\"fallback\"\n"
    "vdomain address=\"10.0.0.1\" name=\"dupe\"\n"
    "vdomain address=\"10.0.0.2\" name=\"Second\"\n"
    "email \"second\"\n";

TEST_F(IniTest, DomainByLocalAddressExactBeforeEmptyFirstWins) {
  load(kDomains);
  struct {
    const char* myip;
    int result;
    const char* name;
  } cases[] = {{"10.0.0.1", 1, "first"}, {"10.0.0.2", 1, "Second"}, {"10.9.9.9", 1, "fallback"},
               {"", 1, "fallback"}};
  for (const auto& c : cases) {
    TestLink l;
    EXPECT_EQ(ini_setdomain(&l, c.myip), c.result) << c.myip;
    EXPECT_STREQ(ini_get_p(&l, INI_VDOMAIN, "name"), c.name) << c.myip;
    ASSERT_EQ(ini_setdomain(&l, c.myip), c.result);  // again on the same handle
    EXPECT_EQ(l.ini->tbl->nref, 1);
  }
  load("vdomain address=\"10.0.0.1\" name=\"only\"\n");
  TestLink l;
  EXPECT_EQ(ini_setdomain(&l, "10.0.0.7"), 0);
  EXPECT_STREQ(ini_get_p(&l, INI_VDOMAIN, "name"), "only");  // the first domain, to be turned away
  EXPECT_NE(logged().find("no matching vdomain, add a domain for address (10.0.0.7), using default"),
            std::string::npos);
}

TEST_F(IniTest, DomainByUserName) {
  struct {
    const char* strip;  // global_strip_user_domain line, or ""
    std::string user;
    int result;
    const char* user_after;
    const char* domain_after;
  } cases[] = {
      {"", "bob@second", 1, "bob", "Second"},
      {"", "bob@SECOND", 1, "bob", "Second"},
      {"", "bob@nowhere", 0, "bob", "first"},
      {"", "bob", 0, "bob", "first"},
      {"global_strip_user_domain false\n", "bob@second", 1, "bob@second", "Second"},
  };
  for (auto& c : cases) {
    std::string text = kDomains;
    text.insert(strlen("global_settings\n"), c.strip);
    load(text);
    TestLink l;
    ASSERT_EQ(ini_setdomain(&l, "10.0.0.1"), 1);
    std::string user = c.user;
    EXPECT_EQ(ini_setdomain_byuser(&l, user), c.result) << c.user;
    EXPECT_EQ(user, c.user_after);
    EXPECT_STREQ(ini_get_p(&l, INI_VDOMAIN, "name"), c.domain_after) << c.user;
  }
}

const char* const kClasses =
    "global_settings\n"
    "vdomain address=\"\" name=\"d\"\n"
    "class type=\"real\" class_name=\"all_real\"\n"
    "class type=\"real\" users=\"*,!bob\" groups=\"staff\" class_name=\"not_bob\"\n"
    "class type=\"real\" groups=\"Staff,admins\" class_name=\"staff\"\n"
    "class type=\"anonymous\" from=\"192.168.*,*.lan\" class_name=\"anon_lan\"\n"
    "class type=\"\" class_name=\"nobody\"\n"
    "class type=\"real\" users=\"carol\" from=\"10.*\" class_name=\"carol_from10\"\n";

TEST_F(IniTest, ClassChoiceLastMatchWins) {
  load(kClasses);
  struct Case {
    const char* user;
    int isanon;
    std::vector<std::string> groups;
    const char* from_ip;
    const char* ipname;
    const char* ipnum;
    int result;
    const char* cls;     // class_name when chosen
    const char* reason;  // when none
  } cases[] = {
      {"alice", 0, {}, "", "h", "1.1.1.1", 1, "not_bob", nullptr},
      {"bob", 0, {"staff"}, "", "h", "1.1.1.1", 1, "staff", nullptr},  // users decide alone
      {"bob", 0, {}, "", "h", "1.1.1.1", 1, "all_real", nullptr},
      {"dave", 0, {"users", "admins"}, "", "h", "1.1.1.1", 1, "staff", nullptr},
      {"carol", 0, {}, "", "h", "10.0.0.5", 1, "carol_from10", nullptr},
      {"carol", 0, {}, "", "h", "11.0.0.5", 1, "not_bob", nullptr},
      {"carol", 0, {}, "11.*", "h", "11.0.0.5", 1, "carol_from10", nullptr},  // token beats from
      {"carol", 0, {}, "99.*", "h", "10.0.0.5", 0, nullptr,
       "Username not valid for your IP, only specific IP's"},
      {"anonymous", 1, {}, "", "pc.lan", "8.8.8.8", 1, "anon_lan", nullptr},  // matched by name
      {"anonymous", 1, {}, "", "192.168.1.9", "192.168.1.9", 1, "anon_lan", nullptr},
      {"anonymous", 1, {}, "", "far.example", "8.8.8.8", 0, nullptr,
       "Username not valid for your IP, only class specific IP's"},
  };
  for (const auto& c : cases) {
    TestLink l;
    l.isanon = c.isanon;
    l.groups = c.groups;
    l.from_ip = c.from_ip;
    l.ipname = c.ipname;
    l.ipnum = c.ipnum;
    l.user = c.user;
    ASSERT_EQ(ini_setdomain(&l, "10.0.0.1"), 1);
    std::string reason;
    EXPECT_EQ(ini_setclass(&l, c.user, reason), c.result) << c.user << " " << c.ipnum;
    if (c.result) {
      EXPECT_STREQ(ini_get_p(&l, INI_CLASS, "class_name"), c.cls) << c.user << " " << c.ipnum;
    } else {
      EXPECT_EQ(reason, c.reason) << c.user;
      EXPECT_EQ(l.ini->cls, nullptr);
    }
  }
}

TEST_F(IniTest, ClassFailureReasons) {
  struct {
    const char* file;
    const char* reason;
  } cases[] = {
      {"vdomain name=d\n", "No Domain or User Class defined for User."},
      {"global_settings\nglobal_noclass \"Go away\"\nvdomain name=d\n", "Go away"},
      {"vdomain name=d\nclass type=real users=alice\n", "Username not valid for this domain."},
      {"vdomain name=d\nclass type=real groups=\"Wheel,Ops\"\n",
       "Username not valid for this usergroup (wheel,ops)"},
      {"vdomain name=d\nclass type=anonymous\n", "No Domain or User Class defined for User."},
  };
  for (const auto& c : cases) {
    load(c.file);
    TestLink l;
    l.groups = {"users"};
    ASSERT_EQ(ini_setdomain(&l, "1.2.3.4"), 1);
    std::string reason;
    EXPECT_EQ(ini_setclass(&l, "bob", reason), 0) << c.file;
    EXPECT_EQ(reason, c.reason) << c.file;
  }
}

TEST_F(IniTest, DenyList) {
  struct {
    const char* deny;
    const char* ipname;
    const char* ipnum;
    int denied;
  } cases[] = {
      {"*,!10.0.0.*", "host.example", "10.0.0.5", 1},  // refused by name though the number is excepted
      {"*,!10.0.0.*", "10.0.0.5", "10.0.0.5", 0},
      {"*,!10.0.0.*", "10.0.1.5", "10.0.1.5", 1},
      {"", "anything", "1.2.3.4", 0},  // an empty list denies nobody
      {"*.bad", "x.BAD", "1.2.3.4", 1},
  };
  for (const auto& c : cases) {
    load(std::string("vdomain name=d\ndeny \"") + c.deny + "\"\ndeny_msg \"Not you\"\n");
    TestLink l;
    l.ipname = c.ipname;
    l.ipnum = c.ipnum;
    ASSERT_EQ(ini_setdomain(&l, "1.1.1.1"), 1);
    std::string reason;
    EXPECT_EQ(ini_deny(&l, reason), c.denied) << c.deny << " " << c.ipname;
    EXPECT_EQ(reason, c.denied ? "Not you" : "");
  }
}

TEST_F(IniTest, FileFiltersOnWholePathAndEachComponent) {
  load("vdomain name=d\n");
  struct {
    const char* list;
    const char* name;
    int refused;
  } cases[] = {
      {".netrc", ".netrc", 1},        {".netrc", "/home/bob/.NETRC", 1},
      {".netrc", "/home/bob/x", 0},   {"*.exe", "/a/b.EXE", 1},
      {"*.exe", "dir\\file.exe", 1},  {"/secret/*", "/secret/a", 1},
      {"/secret/*", "/open/a", 0},    {"", "/a", 0},
      {"*", "", 0},                   {"*,!*.txt", "b.txt", 0},
      {"*.exe", "/a/b.exe/", 1},      {".ssh", "/h/.ssh/id_rsa", 1},
      {".netrc", "/h/.netrc/x", 1},   {".netrc", "/h/x.netrc/y", 0},
      // A directory is judged as a name too: "a" is not a ".txt".
      {"*,!*.txt", "/a/b.txt", 1},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ini_is_file_allowable("noretrieve", c.name, c.list), c.refused)
        << c.list << " " << c.name;
  load("vdomain name=d\nclass type=real\nnoretrieve \".netrc\"\nnoupload \"*.php\"\n");
  TestLink l;
  ASSERT_EQ(ini_setdomain(&l, "1.1.1.1"), 1);
  EXPECT_EQ(ini_noretrieve(&l, "/h/.netrc"), 0);  // no class yet: the defaults, blank
  std::string reason;
  ASSERT_EQ(ini_setclass(&l, "bob", reason), 1);
  EXPECT_EQ(ini_noretrieve(&l, "/h/.netrc"), 1);
  EXPECT_EQ(ini_noupload(&l, "/h/.netrc"), 0);
  EXPECT_EQ(ini_noupload(&l, "/h/x.PHP"), 1);
}

TEST_F(IniTest, DomainPaths) {
  load("global_settings\nhome \"/srv//k/\"\nvdomain name=d\n");
  std::string bf;
  EXPECT_EQ(ini_domain_file(bf, "Dom", "cmds.log"), "/srv/k/Dom/cmds.log");
  EXPECT_EQ(ini_domain_log_file(bf, "Dom", "X.log"), "/srv/k/dom/x.log");
  load("global_settings\nhome \"/srv/k\"\nlog_home \"/Var/Log\\\\k\"\nvdomain name=d\n");
  EXPECT_EQ(ini_domain_log_file(bf, "Dom", "X.log"), "/var/log/k/dom/x.log");
  ini_set_dir_sources([] { return "/home/h"; }, [] { return ""; });
  EXPECT_EQ(ini_domain_log_file(bf, "D", "f"), "/home/h/d/f");
  ini_set_dir_sources(
      [] {
        static const std::string h = "/" + std::string(600, 'h');
        return h.c_str();
      },
      nullptr);
  EXPECT_EQ(ini_domain_file(bf, std::string(600, 'd').c_str(), "f").size(), 998u);
}

TEST_F(IniTest, HandleIsReleasedWithTheSession) {
  load(kDomains);
  INITABLE* t;
  {
    TestLink l;
    ASSERT_EQ(ini_setdomain(&l, "10.0.0.2"), 1);
    t = l.ini->tbl;
    EXPECT_EQ(t->nref, 1);
  }
  EXPECT_EQ(t->nref, 0);
}

using IniDeathTest = IniTest;

TEST_F(IniDeathTest, MissingFileIsFatalWithItsMessage) {
  vini_set_print([](const char* text) { fputs(text, stderr); });
  EXPECT_DEATH(ini_read("korvane", (dir_ + "/none.ini").c_str()),
               "Could not open \\(.*none.ini\\) No such file or directory");
}

}  // namespace
}  // namespace korv
