// Machine listings: the fact table of a session, OPTS MLST, the fact line of
// one entry, MLST on the control channel and MLSD on a data connection.
#include "server/ftp/facts.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/dates.h"
#include "base/files.h"
#include "base/fmt.h"
#include "base/str.h"
#include "base/wild.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "common/mutex.h"
#include "server/ftp/cmd.h"
#include "server/ftp/datachan.h"
#include "server/ftp/listfmt.h"
#include "server/ftp/listing.h"
#include "server/session/link.h"
#include "server/settings/ini.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vdir_rules.h"
#include "server/vfs/vfile.h"

namespace korv {
namespace {

constexpr size_t kFnameCopyMax = 999;  // the argument is copied with this bound


std::string cut(const char* s, size_t max) { return std::string(s != nullptr ? s : "", 0, max); }

// The argument of MLST and MLSD, the session's directory when there is none.
std::string mlst_fname(LINK* l, const char* arg) {
  std::string fname = cut(arg, kFnameCopyMax);
  dmsg("mlsd (%.500s)\n", fname.c_str());
  if (fname.empty()) fname = l->vcwd;
  return fname;
}

// Steps shared by both commands once the name is accepted: the virtual name
// to show, the existence test of a name without "*", "/*" after a
// directory, and the real paths of the session's directory and the name.
// 1, or 0 with the reply sent.
int mlst_paths(LINK* l, std::string& fname, int isdir, std::string& showname, std::string& prefix,
               std::string& realname) {
  std::string virt, etext;
  if (!vdir_fname(realname, virt, l, fname, etext)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", etext.c_str());
    return 0;
  }
  showname = virt;
  if (fname.find('*') == std::string::npos) {
    if (!vdir_impersonate(l)) {
      std::string why = errtext(errno);
      vdir_revert(l);
      cmd_write(l, "501 %.500s: User Impersonate failed %.99s\r\n", fname.c_str(), why.c_str());
      return 0;
    }
    struct stat st {};
    int r = stat(realname.c_str(), &st);
    vdir_revert(l);
    if (r != 0) {
      cmd_write(l, "550 File or Directory does not exist (%.500s)\r\n", showname.c_str());
      return 0;
    }
  }
  if (fname.empty()) fname = ".";
  if (isdir) fname += "/*";
  if (!vdir_fname(prefix, virt, l, "", etext) || !vdir_fname(realname, virt, l, fname, etext)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", etext.c_str());
    return 0;
  }
  return 1;
}

}  // namespace

std::string virtual_child(std::string_view dir, std::string_view entry) {
  size_t cut = entry.find_last_of("/\\");
  std::string_view base = cut == std::string_view::npos ? entry : entry.substr(cut + 1);
  std::string out(dir);
  if (out.empty() || (out.back() != '/' && out.back() != '\\')) out += '/';
  out += base;
  return out;
}

std::string& bigint_to_str(long long x, std::string& tmp) {
  tmp = strfmt("%lld", x);
  return tmp;
}

std::string fact_perm_letters(const DIRRULES& rules, int isdir, int noretrieve, int noupload) {
  auto may = [&rules](const char* word) { return vdir_rules_allow(rules, word) != 0; };
  std::string letters;
  auto add = [&letters](char c, bool ok) {
    if (ok) letters += c;
  };
  if (isdir) {
    // A new name inside falls under the directory's own rule.
    add('c', may("write"));
    add('d', may("del"));
    add('e', true);  // CWD asks no rule
    add('f', may("rename") && !noretrieve);
    add('l', may("list"));
    add('m', may("mkdir"));
    add('p', may("del"));
  } else {
    // Writing over an existing file needs the right to delete it too.
    const bool overwrite = may("write") && may("del") && !noupload;
    add('a', overwrite);
    add('d', may("del"));
    add('f', may("rename") && !noretrieve);
    add('r', may("read") && !noretrieve);
    add('w', overwrite);
  }
  return letters;
}

std::string& fact_perm(LINK* l, std::string_view virt, int isdir, std::string& tmp) {
  tmp.clear();
  DIRRULES rules;
  std::string etext;
  if (!vdir_rules_at(l, virt, rules, etext)) return tmp;
  std::string name(virt);
  tmp = fact_perm_letters(rules, isdir, ini_noretrieve(l, name.c_str()), ini_noupload(l, name.c_str()));
  return tmp;
}

std::string fact_unix_mode(int mode) { return strfmt("0%03o", static_cast<unsigned>(mode) & 07777u); }

std::string& fact_show_one(const FACT* f, const WILD_DATA* d, std::string& result, std::string_view perm) {
  result.clear();
  switch (f->id) {
    case 0:
      result = d->isdir ? "dir" : "file";
      if (d->islink) result = strfmt("OS.unix=slink:%s", d->symlink.c_str());
      if (d->name == ".") result = "cdir";
      if (d->name == "..") result = "pdir";
      break;
    case 1:
      bigint_to_str(static_cast<long long>(d->size), result);
      break;
    case 2:
      result = lib_ftp_time(d->time_write);
      break;
    case 3:
      result = lib_ftp_time(d->time_create);
      break;
    case 4:
      result = strfmt("%d.%d", d->dev, d->inode);
      break;
    case 5:
      result = perm;
      break;
    case 6:
      result = fact_unix_mode(d->mode);
      break;
    case 7:
      unix_uid_user(d->uid, result);
      break;
    case 8:
      unix_gid_group(d->gid, result);
      break;
    default:
      break;
  }
  return result;
}

std::string& fact_show(const FACT* facts, const WILD_DATA* d, std::string& tmp, std::string_view perm) {
  tmp.clear();
  std::string value;
  for (const FACT* f = facts; f->name != nullptr; f++) {
    fact_show_one(f, d, value, perm);
    if (value.empty()) continue;
    if (!tmp.empty()) tmp += ';';
    tmp += strfmt("%s=%s", f->name, value.c_str()).substr(0, kFactValueMax);
  }
  tmp += ';';
  if (tmp.size() > kFactLineMax) tmp.resize(kFactLineMax);
  return tmp;
}

void get_mutex_for_unix_thread_safe_directory_scanning() {
  mutex_wait(MUTEX_UNIX_THREAD_SAFE_DIRECTORY_SCANNING);
}

void release_mutex_for_unix_thread_safe_directory_scanning() {
  mutex_release(MUTEX_UNIX_THREAD_SAFE_DIRECTORY_SCANNING);
}

int cmd_opts_mlst(LINK* l, const char* facts, int np) {
  if (np <= 1) {
    cmd_write(l, "500 Not enough arguments given for opts mlst\r\n");
    return 1;
  }
  std::string list = np == 2 || facts == nullptr ? std::string() : std::string(facts);
  std::string reason;
  if (!fact_setoptions(l->facts, list, reason)) {
    cmd_write(l, "500 %.100s\r\n", reason.c_str());
    return 1;
  }
  std::string tmp;
  cmd_write(l, "200 MLST OPTS %.400s\r\n", fact_showoptions(l->facts, tmp, 0).c_str());
  return 1;
}

int cmd_mlst(LINK* l, char** p, int, const char*) {
  std::string fname = mlst_fname(l, p[1]);
  std::string etext;
  if (fname.size() >= static_cast<size_t>(kMlstPathMax)) {
    cmd_write(l, "501 %.500s: Max path length exceeded %d\r\n", fname.c_str(), kMlstPathMax);
    return 1;
  }
  if (!vexists(l, fname, etext)) {
    cmd_write(l, "501 %.500s: File does not exist %.400s\r\n", fname.c_str(), etext.c_str());
    return 1;
  }
  if (!vdir_access(l, fname, "list", etext)) {
    cmd_write(l, "501 %.500s: Virtual %.400s\r\n", fname.c_str(), etext.c_str());
    return 1;
  }
  int isdir = visdir(l, fname, etext);
  std::string showname, prefix, realname;
  if (!mlst_paths(l, fname, isdir, showname, prefix, realname)) return 1;
  std::string perm;
  fact_perm(l, showname, isdir, perm);

  get_mutex_for_unix_thread_safe_directory_scanning();
  if (!vdir_impersonate(l)) {
    std::string why = errtext(errno);
    vdir_revert(l);
    release_mutex_for_unix_thread_safe_directory_scanning();
    cmd_write(l, "501 %.500s: User Impersonate failed %.99s\r\n", fname.c_str(), why.c_str());
    return 1;
  }
  WildHandlePtr h;
  WILD_DATA d;
  int found = wild_first(h, realname.c_str(), &d);
  // A directory is described by its own "." entry, wherever the scan has it.
  while (found && isdir && d.name != ".") found = wild_next(h.get(), &d);
  if (!found) {
    cmd_write(l, "501 %.500s: File not found %.400s\r\n", fname.c_str(), errtext(errno).c_str());
  } else {
    cmd_write(l, "250- Listing %.400s\r\n", fname.c_str());
    d.name = showname;
    long long size = i64_file_size(realname.c_str());
    if (size < 0) {
      imsg("Could not get file size of (%s) %s\n", realname.c_str(), errtext(errno).c_str());
    } else {
      d.size = static_cast<off_t>(size);
    }
    std::string tmp;
    cmd_write(l, " %.400s %.400s\r\n", fact_show(l->facts, &d, tmp, perm).c_str(), showname.c_str());
  }
  wild_end(h);
  release_mutex_for_unix_thread_safe_directory_scanning();
  vdir_revert(l);
  if (found) cmd_write(l, "250 End\r\n");
  return 1;
}

int cmd_mlsd(LINK* l, char** p, int, const char*) {
  std::string fname = mlst_fname(l, p[1]);
  std::string etext;
  if (!vdir_access(l, fname, "list", etext)) {
    cmd_write(l, "501 %.500s: Virtual %.400s\r\n", fname.c_str(), etext.c_str());
    return 1;
  }
  if (!visdir(l, fname, etext)) {
    cmd_write(l, "501 %.500s: No such file or not a directory: %.99s\r\n", fname.c_str(),
              etext.c_str());
    return 1;
  }
  std::string showname, prefix, realname;
  if (!mlst_paths(l, fname, 1, showname, prefix, realname)) return 1;

  // The opening reply speaks of binary: the lines are exact bytes.
  int wasbin = l->isbin;
  l->isbin = 1;
  std::string reason;
  int opened = ftp_open_datachan(l, reason, showname.c_str());
  l->isbin = wasbin;
  if (!opened) {
    cmd_write(l, "425 Can't build data connection: %.500s.\r\n", reason.c_str());
    imsg("Can't build data connection: %.500s.\n", reason.c_str());
    ftp_end_datachan(l);
    return 1;
  }
  {
    TreeHandlePtr h;
    WILD_DATA d;
    int isdir = 0;
    if (vdir_tree_first(l, h, fname, 0, &d, &isdir, etext)) {
      etext.clear();
      std::string lines, facts, name, perm;
      for (int more = 1; more; more = tree_next(h.get(), &d)) {
        if (!d.isnorm && !d.islink && !d.isdir) continue;
        dmsg("mlsd: %s %d\n", d.name.c_str(), static_cast<int>(d.size));
        fact_perm(l, virtual_child(showname, d.name), d.isdir, perm);
        name = list_client_path(l, d.name);
        lines += strfmt("%.400s %.400s\r\n", fact_show(l->facts, &d, facts, perm).c_str(), name.c_str());
        if (lines.size() >= kListFlushBytes) {
          int n = tcp_write_timed(l->cdata.get(), lines.data(), static_cast<int>(lines.size()),
                                  kChanLineWaitMs);
          if (n != static_cast<int>(lines.size())) {
            lines.clear();
            break;
          }
          lines.clear();
        }
      }
      if (!lines.empty())
        tcp_write_timed(l->cdata.get(), lines.data(), static_cast<int>(lines.size()), kChanLineWaitMs);
    } else {
      imsg("nlst failed (%.500s)\n", etext.c_str());
    }
    tree_end(h);
  }
  if (ini_true(l, INI_LIST_ALIASES)) cmd_list_aliases(l, l->cdata.get(), showname, prefix, 1);
  ftp_end_datachan(l);
  cmd_write(l, "226 MLSD complete. %.500s\r\n", etext.c_str());
  return 1;
}

}  // namespace korv
