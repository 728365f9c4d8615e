// The fact table: OPTS MLST selections and their refusals, the FEAT and OPTS
// views of a selection, and the fact line of files, directories and links.
#include "server/ftp/facts.h"

#include <gtest/gtest.h>

#include "server/ftp/listfmt.h"
#include "server/vfs/vdir.h"

#include <sys/stat.h>

#include <string>

namespace korv {
namespace {

TEST(Facts, SelectionsKeepTableOrderAndRefusalsChangeNothing) {
  const struct {
    const char* list;
    int ok;
    const char* shown;  // fact_showoptions without marks afterwards
  } cases[] = {
      {"size;type;", 1, "type,size"},
      {"UNIX.Mode;Perm", 1, "perm,unix.mode"},
      {"", 1, ""},
      {";;modify;;", 1, "modify"},
      {"size;bad", 0, "type,size,modify,unique"},
      {"typ", 0, "type,size,modify,unique"},
      {"type ", 0, "type,size,modify,unique"},
  };
  for (const auto& k : cases) {
    FACT facts[kFactSlots];
    fact_init(facts);
    std::string reason, tmp;
    EXPECT_EQ(fact_setoptions(facts, k.list, reason), k.ok) << k.list;
    EXPECT_EQ(fact_showoptions(facts, tmp, 0), k.shown) << k.list;
    if (!k.ok) {
      EXPECT_EQ(reason.rfind("Invalid option (", 0), 0u) << reason;
    }
  }
  FACT facts[kFactSlots];
  fact_init(facts);
  std::string reason, tmp;
  EXPECT_EQ(fact_showoptions(facts, tmp, 1),
            "type*,size*,modify*,create,unique*,perm,unix.mode,unix.owner,unix.group");
  ASSERT_EQ(fact_setoptions(facts, "perm;create", reason), 1);
  EXPECT_EQ(fact_showoptions(facts, tmp, 1),
            "type,size,modify,create*,unique,perm*,unix.mode,unix.owner,unix.group");
  EXPECT_EQ(fact_setoptions(facts, "bad", reason), 0);
  EXPECT_EQ(reason, "Invalid option (bad)");
  EXPECT_EQ(fact_setoptions(facts, std::string(300, 'x'), reason), 0);
  EXPECT_EQ(reason.size(), kFactReasonMax);
}

TEST(Facts, LinesShowEveryFactWhateverTheSelection) {
  FACT facts[kFactSlots];
  fact_init(facts);
  std::string reason, tmp;
  ASSERT_EQ(fact_setoptions(facts, "", reason), 1);  // nothing selected: lines stay whole
  WILD_DATA f;
  f.name = "a.txt";
  f.isnorm = 1;
  f.size = 5000000000LL;
  f.mode = S_IFREG | 0664;
  f.dev = 3;
  f.inode = 77;
  f.time_write = 1700000000;  // 2023-11-14 22:13:20 UTC
  f.time_create = 0;
  std::string owner, group;
  const std::string tail = ";unix.owner=" + unix_uid_user(0, owner) + ";unix.group=" + unix_gid_group(0, group) + ";";
  EXPECT_EQ(fact_show(facts, &f, tmp, "adfrw"),
            "type=file;size=5000000000;modify=20231114221320;create=19700101000000;unique=3.77;"
            "perm=adfrw;unix.mode=0664" + tail);
  // No letters: the perm fact is left out, not shown empty.
  EXPECT_EQ(fact_show(facts, &f, tmp, "").find("perm"), std::string::npos);

  // unix.mode is octal permission bits (special bits included), never the type.
  const struct {
    int isdir, islink, mode;
    const char* name;
    const char* type;
    const char* unix_mode;
  } kinds[] = {
      {0, 0, S_IFREG | 0644, "a", "file", "0644"},
      {1, 0, S_IFDIR | 0755, "d", "dir", "0755"},
      {0, 1, S_IFLNK | 0777, "l", "OS.unix=slink:target/x", "0777"},
      {1, 0, S_IFDIR | 01777, ".", "cdir", "01777"},
      {1, 1, S_IFDIR | 02750, "..", "pdir", "02750"},
      {0, 0, S_IFREG | 04755, "s", "file", "04755"},
      {0, 0, S_IFREG, "z", "file", "0000"},
  };
  for (const auto& k : kinds) {
    WILD_DATA d;
    d.isdir = k.isdir;
    d.islink = k.islink;
    d.mode = k.mode;
    d.name = k.name;
    d.symlink = "target/x";
    std::string line = fact_show(facts, &d, tmp, "r");
    EXPECT_EQ(line.rfind(std::string("type=") + k.type + ";size=0;", 0), 0u) << line;
    EXPECT_NE(line.find(std::string(";perm=r;unix.mode=") + k.unix_mode + ";"), std::string::npos) << line;
  }
}

// Each letter stands for a command and must follow that command's rule
// checks: a letter the command would refuse misleads the client.
TEST(Facts, PermLettersFollowTheRules) {
  auto rules = [](int read, int write, int nodel, int nolist, int nomkdir) {
    DIRRULES r;
    r.read = read;
    r.write = write;
    r.nodel = nodel;
    r.nolist = nolist;
    r.nomkdir = nomkdir;
    return r;
  };
  const struct {
    const char* what;
    DIRRULES r;
    int noretrieve, noupload;
    const char* file;
    const char* dir;
  } cases[] = {
      {"read and write", rules(1, 1, 0, 0, 0), 0, 0, "adfrw", "cdeflmp"},
      {"read only, no delete", rules(1, 0, 1, 0, 0), 0, 0, "r", "el"},
      {"read alone", rules(1, 0, 0, 0, 0), 0, 0, "r", "el"},
      {"write without delete", rules(1, 1, 1, 0, 0), 0, 0, "r", "celm"},
      {"no mkdir", rules(1, 1, 0, 0, 1), 0, 0, "adfrw", "cdeflp"},
      {"no list", rules(1, 1, 0, 1, 0), 0, 0, "adfrw", "cdefmp"},
      {"write only", rules(0, 1, 0, 0, 0), 0, 0, "adfw", "cdeflmp"},
      {"noretrieve name", rules(1, 1, 0, 0, 0), 1, 0, "adw", "cdelmp"},
      {"noupload name", rules(1, 1, 0, 0, 0), 0, 1, "dfr", "cdeflmp"},
      {"nothing", rules(0, 0, 1, 1, 0), 0, 0, "", "e"},
  };
  for (const auto& k : cases) {
    EXPECT_EQ(fact_perm_letters(k.r, 0, k.noretrieve, k.noupload), k.file) << k.what;
    EXPECT_EQ(fact_perm_letters(k.r, 1, k.noretrieve, k.noupload), k.dir) << k.what;
  }
}

TEST(Facts, VirtualChildJoinsTheLastPart) {
  const struct {
    const char* dir;
    const char* entry;
    const char* want;
  } cases[] = {
      {"/", "/srv/pub/a.txt", "/a.txt"},
      {"/pub", "/srv/pub/a.txt", "/pub/a.txt"},
      {"/pub/", "a.txt", "/pub/a.txt"},
      {"\\pub", "C:\\pub\\b", "\\pub/b"},
  };
  for (const auto& k : cases) EXPECT_EQ(virtual_child(k.dir, k.entry), k.want) << k.entry;
}

}  // namespace
}  // namespace korv
