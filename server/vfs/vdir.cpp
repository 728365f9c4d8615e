// Virtual path translation: tilde, rule-field expansion, the alias match with
// its tie rules, vdir_fname, the start of a scan, and the nesting identity
// switch. A client path reaches the disk only through vdir_fname's result.
#include "server/vfs/vdir.h"

#include <sys/stat.h>

#include <cerrno>
#include <initializer_list>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "server/auth/user.h"
#include "server/settings/ini.h"
#include "server/vfs/home.h"
#include "server/vfs/vdir_rules.h"
#include "store/vini.h"

namespace korv {
namespace {

void replace_all(std::string& s, std::string_view from, std::string_view to) {
  for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
}

std::string user_home_of(Link* l, const char* user) {
  std::string home;
  link_user_ftphome(l, user, home);
  return home;
}

bool is_sep(char c) { return c == '/' || c == '\\'; }

}  // namespace

std::string& vdir_apply_tilde(Link* l, std::string_view xin, std::string& out) {
  std::string in(xin);  // `xin` may be `out`
  if (in.empty() || in[0] != '~') {
    out = std::move(in);
    return out;
  }
  if (in.size() == 1) {
    out = user_home_of(l, l->user.c_str());
  } else if (in[1] == '/') {
    out = user_home_of(l, l->user.c_str()) + "/" + in.substr(2);
  } else {
    size_t slash = in.find('/');
    std::string name = in.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
    std::string rest = slash == std::string::npos ? "" : in.substr(slash + 1);
    out = user_home_of(l, name.c_str());
    if (!rest.empty()) out += "/" + rest;
  }
  return out;
}

std::string& vdir_path_alias_ini_p(INIPARAM* inip, std::string& bf, Link* l, int path_alias) {
  const char* v = vini_cur_ptr(inip, path_alias ? "path" : "alias");
  bf = v != nullptr ? v : "";
  if (bf.find('~') != std::string::npos) replace_all(bf, "~", user_home_of(l, l->user.c_str()));
  replace_all(bf, "$username", l->user);
  if (path_alias) {
    if (!bf.empty() && bf.back() == '/') bf.pop_back();
    vdir_fixslash_os(bf);
  }
  return bf;
}

int vdir_aliases(Link* l, std::string& virt, std::string& result, DIRRULES* rules) {
  result = virt;
  vdir_fixslash_linux(virt);
  vdir_fixslash_show(l, virt);
  DIRRULES local;
  DIRRULES& r = rules != nullptr ? *rules : local;
  r = DIRRULES{};
  size_t best = 0;
  bool found = false;
  bool too_long = false;
  // All `dir` rules in file order, then the `group_resource` rules of groups
  // the user belongs to. A longer alias wins; of equal ones the earlier, except
  // that the root alias leaves `best` at 0, so the last "/" rule governs.
  for (int code : {INI_DIR, INI_GROUP_RESOURCE}) {
    INIPARAM ip;
    for (INIPARAM* p = vini_find_ptr(l->ini, code, &ip); p != nullptr;
         p = vini_next_ptr(p) ? p : nullptr) {
      if (code == INI_GROUP_RESOURCE &&
          !user_has_group_membership(l->utoken.get(), vini_cur_ptr(p, "group")))
        continue;
      std::string alias, real;
      vdir_path_alias_ini_p(p, alias, l, 0);
      vdir_path_alias_ini_p(p, real, l, 1);
      vdir_apply_tilde(l, alias, alias);
      vdir_fixslash_show(l, alias);
      // The web editor stores aliases as "/pub/": the same rule as "/pub".
      while (alias.size() > 1 && is_sep(alias.back())) alias.pop_back();
      size_t m = alias.size();
      if (m < 1 || virt.compare(0, m, alias) != 0) continue;
      // "/pub" covers "/pub" and "/pub/x", never "/public". A one-letter alias
      // is held to the same boundary: "a" must not cover "a..", whose rest
      // would climb out of the alias's real path.
      bool root = m == 1 && is_sep(alias[0]);
      if (!root && virt.size() > m && !is_sep(virt[m])) continue;
      if (m <= best) continue;
      l->tmp_virtual = alias;
      l->tmp_real = real;
      if (root) m = 0;
      best = m;
      found = true;
      // Each half has a bound; past it the path is refused, not cut into
      // the name of another file.
      const size_t bound = static_cast<size_t>(kVdirAliasPartMax);
      too_long = real.size() > bound || virt.size() - m > bound;
      result = real + "/" + virt.substr(m);
      r.alias = alias;
      r.path = real;
      r.read = vini_cur_ptr_true(p, "read");
      r.write = vini_cur_ptr_true(p, "write");
      r.nodel = vini_cur_ptr_true(p, "nodel");
      r.nolist = vini_cur_ptr_true(p, "nolist");
      r.nomkdir = vini_cur_ptr_true(p, "nomkdir");
    }
  }
  if (!found) {
    vdir_fixslash(virt);
    imsg("No alias found (%.80s) (%.80s)\n", virt.c_str(), l->user.c_str());
    return 0;
  }
  if (too_long) {
    imsg("Path too long for its alias (%.80s) (%.80s)\n", virt.c_str(), l->user.c_str());
    result.clear();
    return 0;
  }
  vdir_fixslash_os(result);
  return 1;
}

int vdir_fname(std::string& realpath, std::string& virt_path, Link* l, std::string_view fname,
               std::string& etext) {
  std::string tmp;
  if (!vdir_simplify(tmp, l->vcwd, fname)) {
    etext = "Invalid virtual path";
    return 0;
  }
  vdir_apply_tilde(l, tmp, virt_path);
  if (virt_path != tmp) {
    // Only a relative directory lets a tilde through simplification; what it
    // expands to is simplified too, so that no home text climbs past an alias.
    std::string again;
    if (!vdir_simplify(again, "", virt_path)) {
      etext = "Invalid virtual path";
      return 0;
    }
    virt_path = std::move(again);
  }
  if (!vdir_aliases(l, virt_path, realpath, nullptr)) {
    if (realpath.empty())
      etext = strfmt("Max path length exceeded %d", kVdirAliasPartMax);
    else
      etext = strfmt("No matching directory for alias (%.100s) ", tmp.c_str());
    return 0;
  }
  vdir_fixslash(realpath);
  vdir_remove_trailing(realpath);
  vdir_fixslash_os(realpath);
  if (ini_true(l, INI_GLOBAL_NOSYMLINK)) {
    std::string link;
    if (symlink_check(l->tmp_real, realpath, link)) {
      etext = strfmt("Symlink found in path (%s) access denied", link.c_str());
      return 0;
    }
  }
  return 1;
}

int vdir_tree_first(Link* l, TreeHandlePtr& hh, std::string_view fname, int rec, WILD_DATA* data,
                    int* isdir, std::string& etext) {
  *isdir = 0;
  hh.reset();
  errno = 0;
  std::string real, virt;
  if (!vdir_fname(real, virt, l, fname, etext)) return 0;
  // The scan's callback checks each directory against this pair while its own
  // access checks overwrite tmp_virtual and tmp_real.
  l->alias_virtual = l->tmp_virtual;
  l->alias_real = l->tmp_real;
  std::string e2;
  if (!vdir_access(l, fname, "list", e2)) {
    etext = strfmt("Virtual %s", e2.c_str());
    imsg("access not allowed %s\n", etext.c_str());
    return 0;
  }
  if (!vdir_impersonate(l)) {
    etext = strfmt("Impersonate failed %s", errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  std::string shown(fname);
  etext = strfmt("Nothing found (%.100s)", shown.c_str());
  int r;
  if (!ini_true(l, INI_UNIX_LIST)) {
    struct stat st {};
    if (stat(real.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) *isdir = 1;
    errno = 0;
    r = tree_simple(hh, real.c_str(), l, data);
  } else {
    errno = 0;
    r = tree_first(hh, real.c_str(), rec, vlist_access, l, data);
  }
  int err = errno;
  if (!r && err == ENOENT)
    etext = "(no files in directory).";
  else if (!r && err != 0)
    etext = strfmt("can't list: %.100s", errtext(err).c_str());
  vdir_revert(l);
  return r;
}

const Utoken* vdir_acting_token(Link* l) {
  if (ini_true(l, INI_USER_NOIMPERSONATE)) return nullptr;
  if (l->utoken) return l->utoken.get();
  // An anonymous session has a token only through an existing actas_user.
  return l->isanon ? user_anonymous_token() : nullptr;
}

int vdir_impersonate(Link* l) {
  if (ini_true(l, INI_USER_NOIMPERSONATE)) return 1;
  int r = 1;
  if (l->impersonate == 0) r = user_impersonate(vdir_acting_token(l));
  l->impersonate++;
  dmsg("vdir_impersonate %d\n", l->impersonate);
  return r;
}

int vdir_revert(Link* l) {
  if (ini_true(l, INI_USER_NOIMPERSONATE)) return 1;
  int r = 1;
  l->impersonate--;
  if (l->impersonate == 0) r = user_revert(vdir_acting_token(l));
  if (l->impersonate < 0) l->impersonate = 0;
  dmsg("vdir_revert %d\n", l->impersonate);
  return r;
}

}  // namespace korv
