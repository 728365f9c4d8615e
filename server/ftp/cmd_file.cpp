// The FTP commands that act on names and the SITE commands: each copies its
// argument, calls one file wrapper and answers with its fixed texts.
#include "server/ftp/cmd_file.h"

#include <sys/stat.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "server/ftp/cmd.h"
#include "server/session/link.h"
#include "server/settings/ini.h"
#include "server/vfs/home.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vdir_path.h"
#include "server/vfs/vfile.h"

namespace korv {

namespace {

// The argument as the handlers keep it: at most kFileArgMax bytes.
std::string arg(const char* s) { return std::string(s, strnlen(s, kFileArgMax)); }

// The shown form of a virtual path for this session (DOS or Unix).
std::string shown(const LINK* l, std::string path) { return vdir_fixslash_show(l, path); }

// The name the upload and download filters judge: the resolved virtual path,
// so that "./.netrc/." or ".rhosts/" cannot pass for another name. A name
// that does not translate is judged as given (its command fails anyway).
std::string filter_name(LINK* l, const std::string& name) {
  std::string real, virt, etext;
  if (vdir_fname(real, virt, l, name, etext)) return virt;
  return name;
}

using SetTimeFn = int (*)(Link*, std::string_view, time_t, std::string&);

// MFMT and MFCT: the time is the first word, the name all of the line after
// the second blank, so that names may hold blanks. A time that was not set
// (a read-only area, a missing file) is refused, never confirmed.
int set_time_reply(LINK* l, char** p, const char* orig, SetTimeFn fn, const char* label) {
  std::string fname = cmd_getrest(orig, 2);
  dmsg("fname (%s)\n", fname.c_str());
  time_t t = ftp_time_convert(p[1]);
  std::string etext;
  if (!fn(l, fname, t, etext)) {
    cmd_write(l, "550 %.90s: %.90s\r\n", fname.c_str(), etext.c_str());
    return 1;
  }
  cmd_write(l, "213 %s=%.90s\r\n", label, lib_ftp_time(t));
  return 1;
}

}  // namespace

int cmd_readme(LINK* l, int code, const char* fname) {
  FilePtr f;
  std::string etext;
  if (!vfopen(l, fname, "r", f, etext)) return 1;
  char line[kReadmeLine + 1];
  while (fgets(line, sizeof line, f.get()) != nullptr) {
    size_t n = strlen(line);
    if (n > 0 && line[n - 1] == '\n') line[--n] = 0;
    if (n > 0 && line[n - 1] == '\r') line[--n] = 0;
    cmd_write(l, "%d-%.500s\r\n", code, line);
  }
  vfclose(l, f, etext);
  return 1;
}

int cmd_cwd(LINK* l, char** p, int, const char*) {
  std::string dir = arg(p[1]);
  if (dir.size() >= static_cast<size_t>(kMaxPathLen)) {
    cmd_write(l, "550 Max path length exceeded %d\r\n", kMaxPathLen);
    return 1;
  }
  std::string realname, virt, etext;
  if (!vdir_fname(realname, virt, l, dir, etext)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", etext.c_str());
    return 1;
  }
  if (dir[0] == '~') {
    // Home, whatever follows the tilde; the home is not tested.
    vdir_gethome_intobf(l, l->vcwd);
    cmd_readme(l, 250, ".message");
    cmd_write(l, "250 CWD command successful now (%.99s)\r\n", shown(l, l->vcwd).c_str());
    return 1;
  }
  if (!visdir(l, virt, etext)) {
    cmd_write(l, "550 %.500s: No such directory: %.99s\r\n", shown(l, virt).c_str(), etext.c_str());
    return 1;
  }
  if (!vdir_impersonate(l)) {
    vdir_revert(l);
    cmd_write(l, "550 Cant Impersonate You\r\n");
    return 1;
  }
  struct stat st {};
  int r = ::stat(realname.c_str(), &st);
  int err = errno;
  vdir_revert(l);
  if (r == 0) {
    dmsg("(%s) exists\n", realname.c_str());
    if (!S_ISDIR(st.st_mode)) {
      cmd_write(l, "550 (%.99s) is not a directory\r\n", shown(l, virt).c_str());
      return 1;
    }
  } else {
    std::string e = errtext(err);
    dmsg("looking for (%s): %s\n", realname.c_str(), e.c_str());
    cmd_write(l, "550 (%.99s) %s\r\n", shown(l, virt).c_str(), e.c_str());
    return 1;
  }
  l->vcwd = virt.substr(0, 998);
  cmd_readme(l, 250, ".message");
  std::string show = l->vcwd;
  vdir_fixslash_linux(show);
  vdir_fixslash_show_linux(show);
  cmd_write(l, "250 CWD command successful now (%.99s)\r\n", show.c_str());
  return 1;
}

int cmd_cdup(LINK* l, char**, int, const char* orig) {
  char verb[] = "CWD", up[] = "..", empty[] = "";
  char* p[] = {verb, up, empty, empty};
  return cmd_cwd(l, p, 2, orig);
}

int cmd_pwd(LINK* l, char** p, int, const char*) {
  if (strcasecmp(p[0], "xpwd") == 0) {
    cmd_write(l, "257 \"/\" is current directory.\r\n");
    return 1;
  }
  std::string cwd = l->vcwd.empty() ? std::string("/") : l->vcwd;
  vdir_fixslash_show_linux(cwd);
  cmd_write(l, "257 \"%s\" is current directory.\r\n", cwd.c_str());
  return 1;
}

int cmd_mkd(LINK* l, char** p, int, const char*) {
  std::string name = arg(p[1]), etext;
  if (vmkdir(l, name, etext)) {
    cmd_write(l, "257 \"%.400s\" directory created\r\n", name.c_str());
  } else if (strcasecmp(etext.c_str(), "File exists") == 0) {
    cmd_write(l, "521 %.90s: %.90s\r\n", name.c_str(), etext.c_str());
  } else {
    cmd_write(l, "550 %.90s: %.90s\r\n", name.c_str(), etext.c_str());
  }
  return 1;
}

int cmd_rmd(LINK* l, char** p, int, const char*) {
  std::string name = arg(p[1]), etext;
  if (vrmdir(l, name, etext)) {
    cmd_write(l, "250 \"%.400s\" directory deleted\r\n", name.c_str());
  } else {
    cmd_write(l, "550 %.90s: %.90s\r\n", name.c_str(), etext.c_str());
  }
  return 1;
}

int cmd_dele(LINK* l, char** p, int, const char*) {
  std::string name = arg(p[1]), etext;
  if (vremove(l, name, etext)) {
    cmd_write(l, "250 File %.90s deleted successfully.\r\n", name.c_str());
  } else {
    cmd_write(l, "550 Delete %.90s failed: %.90s \r\n", name.c_str(), etext.c_str());
  }
  return 1;
}

int cmd_size(LINK* l, char** p, int, const char*) {
  std::string name = arg(p[1]), etext;
  long long size = 0;
  if (vlib_file_size(l, name, etext, &size)) {
    cmd_write(l, "213 %lld\r\n", size);
  } else {
    cmd_write(l, "550 Cannot get file size %.90s: %.90s\r\n", name.c_str(), etext.c_str());
  }
  return 1;
}

int cmd_mdtm(LINK* l, char** p, int, const char*) {
  std::string name = arg(p[1]), etext;
  time_t t = vlib_mtime(l, name, etext);
  if (t != 0) {
    cmd_write(l, "213 %.90s\r\n", lib_ftp_time(t));
  } else {
    cmd_write(l, "550 Cannot get modified time %.90s: %.90s\r\n", name.c_str(), etext.c_str());
  }
  return 1;
}

time_t ftp_time_convert(const char* s) {
  std::string t = arg(s);
  if (t.size() < 12) return 0;
  struct tm tm {};
  // Each field is read from its place to the end of what is left, then cut.
  auto take = [&t](size_t at) {
    int v = atoi(t.c_str() + at);
    t.resize(at);
    return v;
  };
  tm.tm_sec = take(12);
  tm.tm_min = take(10);
  tm.tm_hour = take(8);
  tm.tm_mday = take(6);
  tm.tm_mon = take(4) - 1;
  tm.tm_year = take(0) - 1900;
  tm.tm_isdst = 0;
  return mktime(&tm) - lib_timezone();
}

int cmd_mfmt(LINK* l, char** p, int, const char* orig) {
  return set_time_reply(l, p, orig, v_file_set_modified_time, "modified");
}

int cmd_mfct(LINK* l, char** p, int, const char* orig) {
  return set_time_reply(l, p, orig, v_file_set_created_time, "created");
}

int cmd_rnfr(LINK* l, char** p, int, const char*) {
  std::string name = arg(p[1]);
  if (name.size() >= static_cast<size_t>(kMaxPathLen)) {
    cmd_write(l, "550 %.500s: Max path length exceeded %d\r\n", name.c_str(), kMaxPathLen);
    return 1;
  }
  // A file that may not be fetched may not be renamed either, or a rename
  // would get round the filter.
  if (ini_noretrieve(l, filter_name(l, name).c_str())) {
    emsg("User %s tried to rename the noretrieve file %s\n", l->user.c_str(), name.c_str());
    cmd_write(l, "550 %.500s: Cannot rename file for security reasons\r\n", name.c_str());
    return 1;
  }
  l->rnfr = name;
  std::string etext;
  if (!vexists(l, name, etext)) {
    cmd_write(l, "550 %.90s: %.90s\r\n", name.c_str(), etext.c_str());
    l->rnfr.clear();
    return 1;
  }
  cmd_write(l, "350 File exists, ready for destination name\r\n");
  return 1;
}

int cmd_rnto(LINK* l, char** p, int, const char*) {
  if (l->rnfr.empty()) {
    cmd_write(l, "503 Bad sequence of commands\r\n");
    return 1;
  }
  std::string name = arg(p[1]);
  if (name.size() >= static_cast<size_t>(kMaxPathLen)) {
    cmd_write(l, "553 %.500s: Max path length exceeded %d\r\n", name.c_str(), kMaxPathLen);
    return 1;
  }
  if (ini_noupload(l, filter_name(l, name).c_str())) {
    cmd_write(l, "553 %.500s: Sorry rename to noupload file name is not permitted\r\n", name.c_str());
    return 1;
  }
  // A rename onto the very same file leaves it alone and succeeds.
  std::string real_from, real_to, virt, etext;
  if (vdir_fname(real_from, virt, l, l->rnfr, etext) && vdir_fname(real_to, virt, l, name, etext) &&
      real_from == real_to) {
    cmd_write(l, "250 RNTO command successful.\r\n");
    return 1;
  }
  // The old target goes first: it is gone even if the rename then fails.
  if (vexists(l, name, etext) && !vremove(l, name, etext)) {
    cmd_write(l, "550 Unable to remove old file %.500s %.500s\r\n", name.c_str(), etext.c_str());
    return 1;
  }
  if (!vrename(l, l->rnfr, name, etext)) {
    cmd_write(l, "553 Unable to rename file %.500s\r\n", etext.c_str());
    return 1;
  }
  cmd_write(l, "250 RNTO command successful.\r\n");
  return 1;
}

int cmd_site_umask(LINK* l, const char* mask, int np) {
  int was = l->cur_umask;
  unsigned v = 0;
  if (np > 2 && sscanf(mask, "%o", &v) == 1) l->cur_umask = static_cast<int>(v & 0777);
  // This reply alone ends with a bare newline.
  cmd_write(l, "200 UMASK set to %03o (was %03o)\n", static_cast<unsigned>(l->cur_umask),
            static_cast<unsigned>(was));
  return 1;
}

int cmd_site_idle(LINK* l, const char* secs, int np) {
  // A client may lengthen its own idle limit, but not past two hours, and not
  // to nothing (0 minutes would end the session at its next read).
  constexpr long kIdleMinSecs = 30, kIdleMaxSecs = 7200;
  int n = 0;
  if (np > 2) {
    char* end = nullptr;
    errno = 0;
    long v = isdigit(static_cast<unsigned char>(secs[0])) ? strtol(secs, &end, 10) : -1;
    if (v < kIdleMinSecs || v > kIdleMaxSecs || errno != 0 || end == nullptr || *end != 0) {
      cmd_write(l, "501 Idle time must be between 30 and 7200 seconds\r\n");
      return 0;
    }
    n = static_cast<int>(v);
    l->idle_time_limit = n < 60 ? 1 : n / 60;
  }
  cmd_write(l, "200 Idle set to %d seconds, %d minutes\r\n", n, l->idle_time_limit);
  return 1;
}

int cmd_site_chmod(LINK* l, const char* mode, const char* fname, int np, const char* orig) {
  std::string name = arg(fname);
  // The name is all of the line after the mode, so that it may hold blanks.
  std::string lower = str_lower(arg(orig));
  size_t at = lower.find("chmod ");
  if (at != std::string::npos) {
    std::string rest = arg(orig).substr(at + 6);
    size_t i = 0;
    while (i < rest.size() && isdigit(static_cast<unsigned char>(rest[i]))) i++;
    if (i < rest.size() && rest[i] == ' ') i++;
    name = rest.substr(i);
  }
  dmsg("chmod: file name (%s)\n", name.c_str());
  if (ini_true(nullptr, INI_GLOBAL_NOCHMOD)) {
    cmd_write(l, "550 Sorry chmod is disabled\r\n");
    return 1;
  }
  if (np <= 3) {
    cmd_write(l, "500 Not enough arguments given\r\n");
    return 1;
  }
  std::string etext;
  if (vlib_chmod(l, name, mode, etext)) {
    cmd_write(l, "200 CHMOD command successful.\r\n");
  } else {
    cmd_write(l, "550 %.100s %.100s failed: %.90s\r\n", mode, name.c_str(), etext.c_str());
  }
  return 1;
}

int cmd_site_help(LINK* l, const char*, int) {
  static const char* const lines[] = {
      "214-     Request        Description\r\n",
      "214-     UMASK          change umask. E.g. SITE UMASK 002\r\n",
      "214-     DIRSTYLE       toggles windows/unix dir listing format\r\n",
      "214-     CHMOD          change mode of a file. E.g. SITE CHMOD 755 filename\r\n",
      "214-     HELP           give help information. E.g. SITE HELP\r\n",
  };
  for (const char* line : lines) cmd_write(l, "%s", line);
  // The deployment's contact: the server's `email` setting, as HELP gives it.
  cmd_write(l, "214 Direct comments to %.500s\r\n", ini_get(nullptr, INI_EMAIL));
  return 1;
}

int cmd_site(LINK* l, char** p, int np, const char* orig) {
  if (np < 2) {
    cmd_write(l, "500 SITE sub command expected\r\n");
    return 1;
  }
  std::string word = str_lower(p[1]);
  if (word == "umask") return cmd_site_umask(l, p[2], np);
  if (word == "chmod") return cmd_site_chmod(l, p[2], p[3], np, orig);
  if (word == "help") return cmd_site_help(l, p[2], np);
  if (word == "idle") return cmd_site_idle(l, p[2], np);
  if (word == "dirstyle") {
    l->dirstyle = !l->dirstyle;
    cmd_write(l, "200 MSDOS-like directory output is %s\r\n", l->dirstyle ? "on" : "off");
    return 1;
  }
  cmd_write(l, "502 SITE %.40s command not implemented - let us know if you need this\r\n",
            str_upper(word).c_str());
  return 1;
}

}  // namespace korv
