// The fact table: OPTS MLST selections and their refusals, the FEAT and OPTS
// views of a selection, and the fact line of files, directories and links.
#include "server/facts.h"

#include <gtest/gtest.h>

#include "server/listfmt.h"

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
  f.mode = 0664;  // group write
  f.dev = 3;
  f.inode = 77;
  f.time_write = 1700000000;  // 2023-11-14 22:13:20 UTC
  f.time_create = 0;
  std::string owner, group;
  const std::string tail = ";unix.owner=" + unix_uid_user(0, owner) + ";unix.group=" + unix_gid_group(0, group) + ";";
  EXPECT_EQ(fact_show(facts, &f, tmp),
            "type=file;size=5000000000;modify=20231114221320;create=19700101000000;unique=3.77;"
            "perm=radfw;unix.mode=-rw-rw-r--" + tail);

  const struct {
    int isdir, islink, mode;
    const char* name;
    const char* type;
    const char* perm;
  } kinds[] = {
      {0, 0, 0644, "a", "file", "r"},
      {1, 0, 0755, "d", "dir", "cdeflmp"},
      {0, 1, 0777, "l", "OS.unix=slink:target/x", "radfw"},
      {1, 0, 0755, ".", "cdir", "cdeflmp"},
      {1, 1, 0755, "..", "pdir", "cdeflmp"},
  };
  for (const auto& k : kinds) {
    WILD_DATA d;
    d.isdir = k.isdir;
    d.islink = k.islink;
    d.mode = k.mode;
    d.name = k.name;
    d.symlink = "target/x";
    std::string line = fact_show(facts, &d, tmp);
    EXPECT_EQ(line.rfind(std::string("type=") + k.type + ";size=0;", 0), 0u) << line;
    EXPECT_NE(line.find(std::string(";perm=") + k.perm + ";"), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace korv
