// LIST and NLST: option words, the existence test, the data connection, the
// aliases shown as directories, the sorted scan in one or two passes, and
// lines gathered into large writes.
#include "server/ftp/listing.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "base/files.h"
#include "base/fmt.h"
#include "base/wild.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "net/tcp.h"
#include "server/auth/user.h"
#include "server/ftp/cmd.h"
#include "server/ftp/datachan.h"
#include "server/ftp/facts.h"
#include "server/session/link.h"
#include "server/settings/ini.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vdir_rules.h"
#include "store/vini.h"

namespace korv {
namespace {

constexpr size_t kListArgCopyMax = 999;  // the argument is copied with this bound

// Listing lines on their way to one channel. Data connections get the lines
// in large writes; the control channel gets each through the reply path, so
// that a name holding a line end cannot forge a reply.
class ListOut {
 public:
  ListOut(LINK* l, Chan* c) : l_(l), c_(c), control_(c != nullptr && c == l->c.get()) {
    if (!control_) buf_.reserve(kListFlushBytes + 2 * kListLineMax);
  }
  ~ListOut() { flush(); }
  ListOut(const ListOut&) = delete;
  ListOut& operator=(const ListOut&) = delete;

  // One line, cut to kListLineMax bytes. 0 once a write has failed.
  int put(std::string_view line) {
    if (failed_ || c_ == nullptr) return 0;
    line = line.substr(0, kListLineMax);
    ++sent_;
    if (control_) {
      cmd_write(l_, "%.*s", static_cast<int>(line.size()), line.data());
      return 1;
    }
    buf_.append(line);
    if (buf_.size() >= kListFlushBytes) return flush();
    return 1;
  }

  int flush() {
    if (failed_ || buf_.empty() || c_ == nullptr) {
      buf_.clear();
      return failed_ ? 0 : 1;
    }
    int want = static_cast<int>(buf_.size());
    int n = tcp_write_timed(c_, buf_.data(), want, kChanLineWaitMs);
    buf_.clear();
    if (n != want) {
      imsg("List write failed (%s)\n", tcp_error(c_).c_str());
      failed_ = true;
      return 0;
    }
    return 1;
  }

  int sent() const { return sent_; }
  void count(int n) { sent_ += n; }

 private:
  LINK* l_;
  Chan* c_;
  bool control_;
  bool failed_ = false;
  int sent_ = 0;
  std::string buf_;
};

std::string cut(const char* s, size_t max) { return std::string(s != nullptr ? s : "", 0, max); }

bool listable(const WILD_DATA& d) { return d.islink || d.isnorm || d.isdir; }

// The existence test before a listing of a name without "*". 1 when the
// real path exists; otherwise the reply is sent and 0 returned.
int list_exists(LINK* l, const std::string& fname, const std::string& realname,
                const std::string& showname, const char* impersonate_fail) {
  if (!vdir_impersonate(l)) {
    vdir_revert(l);
    cmd_write(l, "%s", impersonate_fail);
    return 0;
  }
  struct stat st {};
  int r = stat(realname.c_str(), &st);
  int err = errno;
  vdir_revert(l);
  if (r == 0) return 1;
  cmd_write(l, "550 File or Directory does not exist (%.500s)\r\n", showname.c_str());
  dmsg("could not access (%s) -> (%s) because %s\n", fname.c_str(), realname.c_str(),
       errtext(err).c_str());
  return 0;
}

int open_data(LINK* l, const std::string& showname) {
  std::string reason;
  if (ftp_open_datachan(l, reason, showname.c_str())) return 1;
  cmd_write(l, "425 Can't build data connection: %.500s.\r\n", reason.c_str());
  imsg("Can't build data connection: %.500s.\n", reason.c_str());
  ftp_end_datachan(l);
  return 0;
}

// The directory part of a path, losing one trailing "/" when longer than 1.
std::string entry_dir(const std::string& name) {
  size_t slash = name.rfind('/');
  if (slash == std::string::npos) return "";
  std::string dir = slash == 0 ? std::string("/") : name.substr(0, slash);
  if (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

}  // namespace

std::string list_client_path(LINK* l, const std::string& real) {
  std::string virt;
  if (!vdir_xlate(virt, real, l->alias_real, l->alias_virtual)) {
    size_t slash = real.find_last_of('/');
    return slash == std::string::npos ? real : real.substr(slash + 1);
  }
  vdir_fixslash_os(virt);
  std::string cwd = l->vcwd.empty() ? std::string("/") : l->vcwd;
  vdir_fixslash_os(cwd);
  if (cwd == "/") return virt.size() > 1 && virt[0] == '/' ? virt.substr(1) : virt;
  if (virt.size() > cwd.size() && virt.compare(0, cwd.size(), cwd) == 0 && virt[cwd.size()] == '/')
    return virt.substr(cwd.size() + 1);
  return virt;
}

namespace {

// "." and "..": a recursive listing leaves them out, on every level.
bool is_dot_entry(const std::string& name) {
  size_t slash = name.find_last_of('/');
  std::string_view bare = slash == std::string::npos ? std::string_view(name) : std::string_view(name).substr(slash + 1);
  return bare == "." || bare == "..";
}

// The two passes over a LIST scan: the top level, then, in a recursive
// scan, each subdirectory under a "name:" and "total" heading.
void list_entries(LINK* l, Tree_Handle* h, WILD_DATA& d, std::string realname, int isrec,
                  ListOut& out) {
  vdir_fixslash_os(realname);
  long long filesize = 0;
  std::string tmp;
  for (int more = 1; more; more = tree_next(h, &d)) {
    if (d.issub || !listable(d)) continue;
    if (isrec && is_dot_entry(d.name)) continue;
    vdir_fixslash_os(d.name);
    std::string real = d.name;
    if (!simple_match_wild(realname.c_str(), d.name.c_str()) &&
        d.name.compare(0, realname.size(), realname) != 0)
      real = strfmt("%s/%s", realname.c_str(), d.name.c_str());
    filesize = i64_file_size(real.c_str());
    if (filesize < 0) {
      imsg("argh! no filesize (%s) %s - using best guess (%d)\n", real.c_str(),
           errtext(errno).c_str(), static_cast<int>(d.size));
      filesize = d.size;
    }
    dmsg("List (%s) file size %d %d\n", real.c_str(), static_cast<int>(filesize),
         static_cast<int>(d.size));
    if (!out.put(dir_format(l, &d, filesize, tmp, realname))) return;
  }
  if (!tree_reset(h, &d)) return;
  std::string lastdir;
  bool first = true;
  for (int more = 1; more; more = tree_next(h, &d)) {
    if (!d.issub || !listable(d)) continue;
    if (isrec && is_dot_entry(d.name)) continue;
    std::string dir = entry_dir(d.name);
    if (first || dir != lastdir) {
      first = false;
      lastdir = dir;
      std::string rel = list_client_path(l, dir);
      if (!rel.empty()) {
        if (out.sent() > 0 && !out.put("\r\n")) return;
        if (!out.put(strfmt("%.500s:\r\n", rel.c_str()))) return;
        if (!out.put(strfmt("total %d\r\n", tree_tot_subdir(h, dir.c_str())))) return;
      }
    }
    // Every line below the top shows the size the first pass ended with.
    if (!out.put(dir_format(l, &d, filesize, tmp, lastdir))) return;
  }
}

}  // namespace

std::string& dir_format(LINK* l, const WILD_DATA* d, long long filesize, std::string& tmp,
                        std::string_view prefix) {
  return dir_format(l->dirstyle, d, filesize, tmp, prefix, time(nullptr));
}

std::vector<WILD_DATA> list_alias_entries(LINK* l, std::string_view xshowname) {
  std::vector<WILD_DATA> out;
  std::string showname(xshowname);
  vdir_fixslash_os(showname);
  size_t n = showname.size();
  for (int code : {INI_DIR, INI_GROUP_RESOURCE}) {
    INIPARAM ip;
    for (INIPARAM* p = vini_find_ptr(l->ini, code, &ip); p != nullptr;
         p = vini_next_ptr(p) ? p : nullptr) {
      if (code == INI_GROUP_RESOURCE &&
          !user_has_group_membership(l->utoken.get(), vini_cur_ptr(p, "group")))
        continue;
      std::string alias;
      vdir_path_alias_ini_p(p, alias, l, 0);
      vdir_apply_tilde(l, alias, alias);
      if (alias.size() > kListArgCopyMax - 1) alias.resize(kListArgCopyMax - 1);
      vdir_fixslash_os(alias);
      if (!alias_matches(alias, showname, n)) continue;
      WILD_DATA wd;
      wd.name = alias_next_level(alias, n);
      if (wd.name.empty()) continue;
      wd.mode = 0777;
      if (!vini_cur_ptr_true(p, "read")) wd.mode &= ~0444;
      if (!vini_cur_ptr_true(p, "write")) wd.mode &= ~0222;
      wd.nlinks = 2;
      wd.isdir = 1;
      wd.time_write = time(nullptr);
      wd.size = 4096;
      out.push_back(std::move(wd));
    }
  }
  return out;
}

int cmd_list_aliases(LINK* l, Chan* c, std::string_view showname, std::string_view prefix,
                     int ismlst) {
  ListOut out(l, c);
  std::string tmp, perm;
  for (WILD_DATA& wd : list_alias_entries(l, showname)) {
    if (ismlst) {
      // The 4096 is for the listing line only: the size fact of an alias is 0.
      wd.size = 0;
      fact_perm(l, virtual_child(showname, wd.name), 1, perm);
      if (!out.put(strfmt("%.400s %.400s\r\n", fact_show(l->facts, &wd, tmp, perm).c_str(), wd.name.c_str())))
        break;
      continue;
    }
    if (!out.put(dir_format(l, &wd, wd.size, tmp, prefix))) break;
  }
  out.flush();
  return out.sent();
}

int cmd_list(LINK* l, char** p, int, const char*) { return cmd_list_do(l, p[1], 0); }

int cmd_list_do(LINK* l, const char* xfname, int usecontrol) {
  std::string fname = cut(xfname, kListArgCopyMax);
  int isfull = 0, isrec = 0;
  if (!usecontrol) strip_options_pre(fname, &isfull, &isrec);
  std::string realname, virt, etext;
  if (!vdir_fname(realname, virt, l, fname, etext)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", etext.c_str());
    return 1;
  }
  std::string showname = virt;
  if (fname.find('*') == std::string::npos &&
      !list_exists(l, fname, realname, showname, "550 Cant Impersonate You\r\n"))
    return 1;
  std::string prefix;
  if (!vdir_fname(prefix, virt, l, "", etext)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", etext.c_str());
    return 1;
  }
  if (!usecontrol && !open_data(l, showname)) return 1;
  Chan* c = usecontrol ? l->c.get() : l->cdata.get();
  int sent = 0;
  if (ini_true(l, INI_LIST_ALIASES)) sent = cmd_list_aliases(l, c, showname, prefix, 0);
  {
    TreeHandlePtr h;
    WILD_DATA d;
    int isdir = 0;
    if (vdir_tree_first(l, h, fname, isrec, &d, &isdir, etext)) {
      etext.clear();
      ListOut out(l, c);
      // The aliases' lines count as sent for the blank line before a heading.
      out.count(sent);
      list_entries(l, h.get(), d, realname, isrec, out);
      out.flush();
    } else {
      imsg("vdir_tree_first failed (%.300s)\n", etext.c_str());
    }
    tree_end(h);
  }
  if (!usecontrol) {
    ftp_end_datachan(l);
    cmd_write(l, "226 Transfer complete. %.500s\r\n", etext.c_str());
  }
  return 1;
}

int cmd_nlst(LINK* l, char** p, int np, const char* orig) {
  std::string fname = cut(p[1], kListArgCopyMax);
  int isfull = 0, isrec = 0;
  strip_options(fname, &isfull, &isrec);
  if (isfull) return cmd_list(l, p, np, orig);
  std::string etext;
  if (!vdir_access(l, l->vcwd, "list", etext)) {
    cmd_write(l, "501 %.500s: Virtual %.400s\r\n", l->vcwd.c_str(), etext.c_str());
    return 1;
  }
  std::string prefix, realname, virt;
  if (!vdir_fname(prefix, virt, l, "", etext) || !vdir_fname(realname, virt, l, fname, etext)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", etext.c_str());
    return 1;
  }
  std::string showname = virt;
  if (fname.find('*') == std::string::npos &&
      !list_exists(l, fname, realname, showname, "550 Cant Impersonate You1\r\n"))
    return 1;
  dmsg("realname (%.100s) prefix(%s) fname (%.100s) showname (%.100s)\n", realname.c_str(),
       prefix.c_str(), fname.c_str(), showname.c_str());
  // The opening reply speaks of ASCII whatever the type: names are text.
  int wasbin = l->isbin;
  l->isbin = 0;
  int opened = open_data(l, showname);
  l->isbin = wasbin;
  if (!opened) return 1;
  {
    TreeHandlePtr h;
    WILD_DATA d;
    int isdir = 0;
    if (vdir_tree_first(l, h, fname, 0, &d, &isdir, etext)) {
      etext.clear();
      ListOut out(l, l->cdata.get());
      std::string name;
      for (int more = 1; more; more = tree_next(h.get(), &d)) {
        if ((d.issub && !d.isdir) || !listable(d)) continue;
        name = list_client_path(l, d.name);
        if (!out.put(strfmt("%.500s\r\n", name.c_str()))) break;
      }
      out.flush();
    } else {
      imsg("nlst failed (%.500s)\n", etext.c_str());
    }
    tree_end(h);
  }
  ftp_end_datachan(l);
  cmd_write(l, "226 Transfer complete. %.500s\r\n", etext.c_str());
  return 1;
}

}  // namespace korv
