// File calls for clients with a class's rules loaded on a temporary tree: the
// order of the checks before an open and their texts, the quota counts that
// opening and removing move, directories with missing parents, the session's
// umask on what is created, and the texts of the other wrappers.
#include "server/vfs/vfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "common/emsg.h"
#include "common/mutex.h"

namespace korv {
namespace {

class Vfile : public ::testing::Test {
 protected:
  void SetUp() override {
    mutex_init();
    char tmpl[] = "/tmp/vfile_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    d_ = tmpl;
    emsg_open((d_ + "/korvane.log").c_str());
    for (const char* sub : {"/ro", "/rw", "/wn", "/nm"}) mkdir((d_ + sub).c_str(), 0755);
    put("/ro/a", "aaaa");
    put("/rw/old", "0123456789");
    put("/wn/old", "0123456789");
    std::string path = d_ + "/k.ini";
    std::ofstream(path) << "global_settings\nvdomain address=\"\" name=\"d\"\nclass type=real\nuser_home /u\n"
                        << "dir alias=\"/ro\" path=\"" << d_ << "/ro\" read=true\n"
                        << "dir alias=\"/rw\" path=\"" << d_ << "/rw\" read=true write=true\n"
                        << "dir alias=\"/wn\" path=\"" << d_ << "/wn\" read=true write=true nodel=true\n"
                        << "dir alias=\"/nm\" path=\"" << d_ << "/nm\" read=true write=true nomkdir=true\n";
    ASSERT_EQ(ini_read("korvane", path.c_str()), 1);
    ASSERT_EQ(ini_setdomain(&l_, ""), 1);
    std::string reason;
    ASSERT_EQ(ini_setclass(&l_, "bob", reason), 1) << reason;
    l_.user = "bob";
    l_.vcwd = "/";
  }
  void TearDown() override {
    ini_free(&l_);
    ini_free_all();
    emsg_open("");
    if (system(("rm -rf '" + d_ + "'").c_str()) != 0) ADD_FAILURE() << "could not remove " << d_;
  }
  void put(const std::string& name, const std::string& text) { std::ofstream(d_ + name) << text; }
  bool exists(const std::string& name) { return access((d_ + name).c_str(), F_OK) == 0; }
  int mode_of(const std::string& name) {
    struct stat st {};
    return stat((d_ + name).c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 0777) : -1;
  }
  // "OK <q>" or "FAIL <etext>".
  std::string check(const char* fname, const char* mode) {
    std::string etext, bf;
    long long q = -1;
    return pre_vfopen_check_all(&l_, fname, mode, etext, bf, &q) ? "OK " + std::to_string(q) : "FAIL " + etext;
  }
  std::string d_;
  Link l_;
};

TEST_F(Vfile, ChecksBeforeAnOpenInTheirOrder) {
  struct Case {
    const char *fname, *mode, *want;
  } cases[] = {
      {"", "r", "FAIL Invalid filename ()"},
      {"/../x", "r", "FAIL Invalid virtual path"},
      {"/ro/a", "r", "OK 0"},
      {"/ro/a", "w", "FAIL Virtual write access denied (/ro/a)"},
      // A resumed upload changes the file: it is a write, not a read.
      {"/ro/a", "r+", "FAIL Virtual write access denied (/ro/a)"},
      {"/rw/old", "w", "OK 10"},  // the size about to be overwritten
      {"/rw/old", "a", "OK 0"},
      {"/wn/new", "w", "OK 0"},   // nodel still lets a new file be stored...
      {"/wn/old", "w", "FAIL Virtual del access denied (/wn/old)"},  // ...but not replace one
      {"/wn/old", "a", "FAIL Virtual del access denied (/wn/old)"},
      {"/rw/missing", "r", "FAIL OS & File System Error: (/rw/missing) No such file or directory"},
      {"/rw/missing", "r+", "FAIL OS & File System Error: (/rw/missing) No such file or directory"},
      {"/rw/no/such/dir/f", "w", "FAIL OS & File System Error: (/rw/no/such/dir/f) No such file or directory"},
  };
  for (const Case& k : cases) EXPECT_EQ(check(k.fname, k.mode), k.want) << k.fname << " " << k.mode;
  // The test opens left nothing behind and truncated nothing they were not asked to.
  EXPECT_FALSE(exists("/wn/new"));
  std::ifstream old(d_ + "/wn/old");
  std::string text;
  old >> text;
  EXPECT_EQ(text, "0123456789");

  l_.quota = 2048;
  l_.quota_was = 4096;
  EXPECT_EQ(check("/rw/new", "w"), "FAIL FTP Quota 4k/2k exceeded");
  EXPECT_EQ(check("/ro/a", "r"), "OK 0");  // reading is never held back by the quota
}

TEST_F(Vfile, QuotaCountsFollowOverwriteAndRemove) {
  FilePtr f;
  std::string etext;
  ASSERT_EQ(vfopen(&l_, "/rw/old", "w", f, etext), 1) << etext;
  EXPECT_EQ(l_.quota_change, -10);
  EXPECT_EQ(vfopen(&l_, "/rw/old", "w", f, etext), 0);  // the caller still holds a file
  EXPECT_EQ(vfclose(&l_, f, etext), 1);
  EXPECT_FALSE(f);
  EXPECT_EQ(vfclose(&l_, f, etext), 0);

  put("/rw/gone", "12345");
  ASSERT_EQ(vremove(&l_, "/rw/gone", etext), 1) << etext;
  EXPECT_EQ(l_.quota_change, -15);
  EXPECT_EQ(vremove(&l_, "/rw/gone", etext), 0);  // a failed remove credits nothing
  EXPECT_EQ(etext, "No such file or directory");
  EXPECT_EQ(l_.quota_change, -15);
  EXPECT_EQ(vremove(&l_, "/wn/old", etext), 0);
  EXPECT_EQ(etext, "Virtual del access denied (/wn/old)");
}

TEST_F(Vfile, DirectoriesWithParentsAndTheSessionUmask) {
  l_.cur_umask = 077;
  std::string etext;
  EXPECT_EQ(vmkdir(&l_, "/rw/a/b/c", etext), 1) << etext;
  EXPECT_EQ(etext, "created the directory");
  EXPECT_EQ(mode_of("/rw/a") * 1000 + mode_of("/rw/a/b/c"), 0700 * 1000 + 0700);
  EXPECT_EQ(vmkdir(&l_, "/rw/a/b/", etext), 1);
  EXPECT_EQ(etext, "directory exists");
  EXPECT_EQ(vmkdir(&l_, "/rw/old", etext), 0);
  EXPECT_EQ(etext, "file exists in wanted location of directory");
  EXPECT_EQ(vmkdir(&l_, "/nm/x", etext), 0);
  EXPECT_EQ(etext, "mkdir access denied (/nm/x)");
  EXPECT_EQ(do_vmkdir(&l_, "/nm/x", etext, 1), 1);  // home creation skips the rule
  EXPECT_EQ(vmkdir(&l_, "/../x", etext), 0);
  EXPECT_EQ(etext, "unavailable directory location");

  l_.cur_umask = 027;
  FilePtr f;
  ASSERT_EQ(vfopen(&l_, "/rw/made", "w", f, etext), 1) << etext;
  vfclose(&l_, f, etext);
  EXPECT_EQ(mode_of("/rw/made"), 0640);

  EXPECT_EQ(vrmdir(&l_, "/wn", etext), 0);
  EXPECT_EQ(etext, "access denied (korvane setting)");
  EXPECT_EQ(vrmdir(&l_, "/rw/a", etext), 0);
  EXPECT_EQ(etext, "Directory not empty");
  EXPECT_EQ(vrmdir(&l_, "/rw/a/b/c", etext), 1);
}

TEST_F(Vfile, OtherWrappersAndTheirTexts) {
  std::string etext;
  EXPECT_EQ(vrename(&l_, "/ro/a", "/rw/a", etext), 0);
  EXPECT_EQ(etext, "Virtual rename access denied (/ro/a) (/ro/a)");
  EXPECT_EQ(vrename(&l_, "/rw/old", "/wn/x", etext), 0);  // the second name is tested too
  EXPECT_EQ(etext, "Virtual rename access denied (/wn/x) (/rw/old)");
  EXPECT_EQ(vrename(&l_, "/rw/old", "/rw/new", etext), 1) << etext;
  EXPECT_TRUE(exists("/rw/new") && !exists("/rw/old"));

  long long size = -1;
  EXPECT_EQ(vlib_file_size(&l_, "/rw/new", etext, &size), 1);
  EXPECT_EQ(size, 10);
  EXPECT_EQ(vlib_file_size(&l_, "/rw", etext, &size), 0);
  EXPECT_EQ(etext, "Not a plain file");
  EXPECT_EQ(vlib_mtime(&l_, "/rw/none", etext), 0);
  EXPECT_EQ(etext, "No such file or directory");

  EXPECT_EQ(vlib_chmod(&l_, "/rw/new", "604", etext), 1);
  EXPECT_EQ(mode_of("/rw/new"), 0604);
  EXPECT_EQ(vlib_chmod(&l_, "/ro/a", "777", etext), 0);
  EXPECT_EQ(etext, "Virtual write access denied (/ro/a)");

  // Setting times needs "del", which read alone does not give.
  EXPECT_EQ(v_file_set_modified_time(&l_, "/ro/a", 1000000000, etext), 0);
  EXPECT_EQ(etext, "Virtual del access denied (/ro/a)");
  EXPECT_EQ(v_file_set_modified_time(&l_, "/rw/new", 1000000000, etext), 1) << etext;
  EXPECT_EQ(vlib_mtime(&l_, "/rw/new", etext), 1000000000);
  EXPECT_EQ(v_file_set_modified_time(&l_, "/wn/old", 1000000000, etext), 0);

  EXPECT_EQ(vexists(&l_, "/ro/a", etext) * 10 + visdir(&l_, "/ro/a", etext), 10);
  EXPECT_EQ(visdir(&l_, "/ro", etext), 1);
  EXPECT_EQ(vexists(&l_, "/ro/zz", etext), 0);
  EXPECT_EQ(etext, "No such file or directory");
}

}  // namespace
}  // namespace korv
