// Virtual path translation: the tilde step, the match of a virtual path
// against the aliases of the session's class (`dir`, then `group_resource`),
// and vdir_fname, the one checkpoint between client text and a real path.
// Also the start of a directory scan of a virtual path and the nesting
// identity switch that file work runs under.
#pragma once

#include <string>
#include <string_view>

#include "base/dirscan.h"
#include "server/session/link.h"
#include "server/vfs/vdir_path.h"

namespace korv {

inline constexpr int kVdirAliasPartMax = 400;  // longest alias path, and longest rest after the alias

// The outcome of an alias match: the winning rule's texts and its flags, each
// false when the rule does not give it.
struct DIRRULES {
  std::string alias;
  std::string path;
  int read = 0;
  int write = 0;
  int nolist = 0;
  int nodel = 0;
  int nomkdir = 0;
};
using Dirrules = DIRRULES;

// "~" alone, "~/rest" and "~name/rest" become the home of the session's user
// or of `name` followed by the rest; anything else is copied. `xin` and `out`
// may be the same string. Returns `out`.
std::string& vdir_apply_tilde(Link* l, std::string_view xin, std::string& out);

// The rule field at the cursor, "path" if `path_alias`, else "alias", with
// every "~" replaced by the user's home and every "$username" by the user;
// a path also loses one trailing "/" and is put in native form. Returns `bf`.
std::string& vdir_path_alias_ini_p(INIPARAM* inip, std::string& bf, Link* l, int path_alias);

// Finds the longest alias of the class that covers the simplified `virt`
// (normalised in place to the session's form). 1 with the real path in
// `result`, the rule's flags in `rules`, and the match in l->tmp_virtual and
// l->tmp_real; or 0 with `result` a copy of `virt` when no alias covers it,
// or empty when the alias's path or the rest of `virt` is longer than
// kVdirAliasPartMax. `rules` may be null.
int vdir_aliases(Link* l, std::string& virt, std::string& result, DIRRULES* rules);

// Client text `fname` to a real path: simplification against l->vcwd, the
// tilde step, the alias match and, with global_nosymlink, the symlink test.
// 1 with `realpath` and the final virtual path in `virt_path`, or 0 with the
// reason in `etext`.
int vdir_fname(std::string& realpath, std::string& virt_path, Link* l, std::string_view fname,
               std::string& etext);

// Begins a scan of the virtual path `fname` (a directory or a pattern):
// recursive through unix_list with `rec`, each subdirectory then offered to
// vlist_access. 1 with the first entry in `data`, or 0 with the reason in
// `etext`; `*isdir` tells whether the real path is a directory (one-level
// scans only).
int vdir_tree_first(Link* l, TreeHandlePtr& hh, std::string_view fname, int rec, WILD_DATA* data,
                    int* isdir, std::string& etext);

// Become the session's user for file work. Calls nest on l->impersonate and
// only the outermost pair switches identity; each impersonate, failed or not,
// needs its revert. Nothing happens when the class sets user_noimpersonate.
int vdir_impersonate(Link* l);
int vdir_revert(Link* l);
// The identity file work runs as: the session's token, the unprivileged
// system account for an anonymous session without one, or null (no switch)
// when the class sets user_noimpersonate.
const Utoken* vdir_acting_token(Link* l);

}  // namespace korv
