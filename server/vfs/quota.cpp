// The per-user disk quota: its limit at login, the stored count in the home,
// the walk that rebuilds it, and the session counters.
#include "server/vfs/quota.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/dirscan.h"
#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "common/mutex.h"
#include "server/auth/user.h"
#include "server/settings/ini.h"
#include "server/vfs/home.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vfile.h"

namespace korv {

namespace {

std::string kbytes(long long n) { return i64_to_cstr(n / 1024); }

// Rebuilds the count and says so in the log.
void quota_rebuild_logged(Link* l) {
  imsg("Quota file missing or more than a week old, so rebuilding it\n");
  cmd_quota_rebuild(l);
  imsg("Rebuilt quota, result %sk\n", kbytes(l->quota_was).c_str());
}

bool is_dot_or_dotdot(const std::string& n) { return n == "." || n == ".."; }

}  // namespace

int cmd_quota_root(Link* l, std::string& bf) {
  bf.clear();
  if (!l->utoken) return 1;
  std::string home, virt, etext;
  vdir_gethome_intobf(l, home);
  return vdir_fname(bf, virt, l, home, etext) ? 1 : 0;
}

int cmd_quota_file(Link* l, std::string& bf) {
  if (!l->utoken) {
    bf = strfmt("NOBODY%s", kQuotaFileName);
    return 1;
  }
  int ok = cmd_quota_root(l, bf);
  bf += "/";
  bf += kQuotaFileName;
  return ok;
}

int cmd_quota_read(Link* l) {
  std::string fname;
  cmd_quota_file(l, fname);
  // The file lies in the user's own tree: it is read and removed as the user,
  // and a link put in its place is not followed.
  vdir_impersonate(l);
  struct stat st {};
  if (lstat(fname.c_str(), &st) == 0 && time(nullptr) - st.st_mtime > kQuotaFileMaxAge) {
    quota_rebuild_logged(l);
    remove(fname.c_str());
    vdir_revert(l);
    return 1;
  }
  int fd = open(fname.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  FilePtr f(fd >= 0 ? fdopen(fd, "r") : nullptr);
  if (!f) {
    int err = errno;
    if (fd >= 0) close(fd);
    imsg("cmd_quota_read errno is %d (%s)\n", err, errtext(err).c_str());
    if (err != ENOENT && err != ELOOP) {
      vdir_revert(l);
      return 0;
    }
    if (err == ELOOP) remove(fname.c_str());  // a link in the file's place goes, the count is made afresh
    quota_rebuild_logged(l);
    vdir_revert(l);
    return 1;
  }
  std::string line;
  int c;
  while (line.size() < kQuotaLineMax && (c = fgetc(f.get())) != EOF && c != '\n') line.push_back(static_cast<char>(c));
  f.reset();
  remove(fname.c_str());
  vdir_revert(l);
  l->quota_was = int64bit_atoi(line.c_str());
  imsg("Quota read from file %sk\n", kbytes(l->quota_was).c_str());
  return 1;
}

int cmd_quota_write(Link* l) {
  if (l->quota <= 0 || ini_true(l, INI_GLOBAL_NOQUOTA)) return 0;
  if (!cmd_quota_read(l)) return 0;
  std::string fname;
  cmd_quota_file(l, fname);
  std::string text = i64_to_cstr(l->quota_was + l->quota_change);
  // As the user and never through a link: a link made between the removal in
  // cmd_quota_read and this open makes the open fail instead.
  vdir_impersonate(l);
  int fd = open(fname.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  FilePtr f(fd >= 0 ? fdopen(fd, "w") : nullptr);
  if (fd >= 0 && !f) close(fd);
  bool ok = f && fputs(text.c_str(), f.get()) != EOF && fclose(f.release()) == 0;
  int err = errno;
  vdir_revert(l);
  if (!ok) {
    imsg("Unable to write quota file (%s) (%s)\n", fname.c_str(), errtext(err).c_str());
    return 0;
  }
  return 1;
}

void cmd_quota_rebuild(Link* l) {
  std::string root;
  cmd_quota_root(l, root);
  int depth = 0;
  l->quota_was = cmd_quota_deeper(l, root, &depth);
  l->quota_change = 0;
}

long long cmd_quota_deeper(Link* l, const std::string& path, int* depth) {
  dmsg("quota_deeper (%s) %d\n", path.c_str(), *depth);
  if (++*depth >= kQuotaDepthMax) return 0;
  long long total = 0;
  {
    // Held through the recursion: the lock is re-entrant.
    MutexHold hold(MUTEX_UNIX_THREAD_SAFE_DIRECTORY_SCANNING);
    WildHandlePtr h;
    WILD_DATA d;
    for (int more = wild_first(h, path.c_str(), &d); more; more = wild_next(h.get(), &d)) {
      if (d.islink) continue;
      if (d.isdir) {
        total += kQuotaDirBytes;
        if (!is_dot_or_dotdot(d.name))
          total += cmd_quota_deeper(l, strfmt("%s/%s", path.c_str(), d.name.c_str()), depth) + d.size;
      } else {
        total += d.size;
      }
    }
    wild_end(h);
  }
  --*depth;
  return total;
}

int vquota_exceeded(Link* l, std::string& message) {
  if (l->quota == 0) {
    message = "unlimited";
    return 0;
  }
  long long used = l->quota_was + l->quota_change;
  message = strfmt("%sk/%sk", kbytes(used).c_str(), kbytes(l->quota).c_str());
  return used > l->quota ? 1 : 0;
}

long long vquota_add(Link* l, long long q) {
  l->quota_change += q;
  return l->quota_was + l->quota_change;
}

}  // namespace korv
