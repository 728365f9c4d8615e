// Access rules on virtual paths: what the alias covering a path lets the
// session do (the operation words), the listing callback that keeps a
// recursive scan inside what may be listed, and the symbolic-link test used
// when global_nosymlink is on.
#pragma once

#include <string>
#include <string_view>

#include "server/session/link.h"
#include "server/vfs/vdir.h"

namespace korv {

// May the session do `mode` to the virtual path `virt`? `mode` is one of
// "read", "write", "mkdir", "nomkdir", "nolist", "list", "nodel", "del",
// "rename"; any other word is denied. 1 or 0; `etext` always receives a text
// ("<mode> access allowed|denied (<path>)" or the reason the path failed).
int vdir_access(Link* l, std::string_view virt, const char* mode, std::string& etext);

// The two halves of vdir_access, for callers that ask several words about one
// path. vdir_rules_at finds the rule covering `virt`: 1 with `rules` set, or
// 0 with the reason in `etext`. vdir_rules_allow answers `mode` from `rules`
// exactly as vdir_access would (0 for an unknown word).
int vdir_rules_at(Link* l, std::string_view virt, DIRRULES& rules, std::string& etext);
int vdir_rules_allow(const DIRRULES& rules, const char* mode);

// Callback of a recursive scan: `xl` is the session, `dir` a real directory.
// 1 if its virtual form may be listed, 0 to skip it. Reads the alias pair that
// vdir_tree_first kept in l->alias_virtual and l->alias_real.
int vlist_access(void* xl, const char* dir);

// Looks for a symbolic link in `path` at or below `root` (never above it, and
// never `path` itself when it equals `root`). 1 with the first link's path in
// `result`, else 0.
int symlink_check(std::string_view root, std::string_view path, std::string& result);

// 1 if lstat succeeds and `fname` is a symbolic link.
int lib_issym(const char* fname);

}  // namespace korv
