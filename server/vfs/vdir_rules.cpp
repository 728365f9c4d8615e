// Access rules: the operation words answered from the flags of the alias that
// covers a path, the listing callback of recursive scans, and the test for
// symbolic links below an alias's real path.
#include "server/vfs/vdir_rules.h"

#include <sys/stat.h>

#include <cstring>

#include "base/fmt.h"
#include "common/emsg.h"
#include "server/vfs/vdir.h"

namespace korv {
namespace {

struct ModeRow {
  const char* word;
  int (*allowed)(const DIRRULES& r);
};

// "nomkdir", "nolist" and "nodel" ask about the rule itself. Deleting changes
// the area as much as writing does: "del" needs `write`, so a rule with `read`
// alone is read-only for every command.
const ModeRow kModes[] = {
    {"read", [](const DIRRULES& r) { return r.read; }},
    {"write", [](const DIRRULES& r) { return r.write; }},
    {"mkdir", [](const DIRRULES& r) { return static_cast<int>(r.write && !r.nomkdir); }},
    {"nomkdir", [](const DIRRULES& r) { return r.nomkdir; }},
    {"nolist", [](const DIRRULES& r) { return r.nolist; }},
    {"list", [](const DIRRULES& r) { return static_cast<int>(!r.nolist); }},
    {"nodel", [](const DIRRULES& r) { return r.nodel; }},
    {"del", [](const DIRRULES& r) { return static_cast<int>(r.write && !r.nodel); }},
    {"rename", [](const DIRRULES& r) { return static_cast<int>(r.write && !r.nodel); }},
};

// vdir_rules_at with the simplified path that was matched in `simplified`.
int rules_at(Link* l, std::string_view virt, DIRRULES& rules, std::string& simplified, std::string& etext) {
  etext.clear();
  std::string real;
  if (!vdir_simplify(simplified, l->vcwd, virt)) {
    etext = "Invalid virtual path";
    return 0;
  }
  if (!vdir_aliases(l, simplified, real, &rules)) {
    etext = strfmt("No matching virtual directory or alias (%.100s)", simplified.c_str());
    return 0;
  }
  return 1;
}

}  // namespace

int vdir_rules_at(Link* l, std::string_view virt, DIRRULES& rules, std::string& etext) {
  std::string simplified;
  return rules_at(l, virt, rules, simplified, etext);
}

int vdir_rules_allow(const DIRRULES& rules, const char* mode) {
  if (mode == nullptr) mode = "";
  for (const ModeRow& row : kModes) {
    if (strcmp(mode, row.word) == 0) return row.allowed(rules) ? 1 : 0;
  }
  emsg("unknown access type %s.\n", mode);
  return 0;
}

int vdir_access(Link* l, std::string_view virt, const char* mode, std::string& etext) {
  std::string result;
  DIRRULES rules;
  if (!rules_at(l, virt, rules, result, etext)) return 0;
  if (mode == nullptr) mode = "";
  int ok = vdir_rules_allow(rules, mode);
  etext = strfmt("%s access %s (%s)", mode, ok ? "allowed" : "denied", result.c_str());
  dmsg("%s\n", etext.c_str());
  return ok;
}

int vlist_access(void* xl, const char* dir) {
  Link* l = static_cast<Link*>(xl);
  if (l == nullptr || dir == nullptr) return 0;
  dmsg("vlist_access_callback (%.100s) (%.100s) (%.100s)\n", dir, l->alias_real.c_str(),
       l->alias_virtual.c_str());
  std::string virt;
  // A directory that does not lie below the alias's real path has no virtual
  // form, and is not entered.
  if (!vdir_xlate(virt, dir, l->alias_real, l->alias_virtual)) return 0;
  dmsg("Virtual (%.100s)\n", virt.c_str());
  std::string etext;
  if (!vdir_access(l, virt, "list", etext)) {
    dmsg("(%s) %s\n", dir, etext.c_str());
    return 0;
  }
  return 1;
}

int symlink_check(std::string_view root, std::string_view path, std::string& result) {
  if (root.size() > path.size()) return 0;
  // The alias's own top first, then each directory below it; never above.
  for (size_t i = root.size(); i < path.size(); i++) {
    if (path[i] != '/') continue;
    std::string part(path.substr(0, i));
    if (lib_issym(part.c_str())) {
      result = part;
      return 1;
    }
  }
  if (path.size() > root.size()) {
    std::string whole(path);
    if (lib_issym(whole.c_str())) {
      result = whole;
      return 1;
    }
  }
  return 0;
}

int lib_issym(const char* fname) {
  struct stat st {};
  if (fname == nullptr || lstat(fname, &st) != 0) return 0;
  return S_ISLNK(st.st_mode) ? 1 : 0;
}

}  // namespace korv
