// The per-user disk quota: its limit at login, the stored count in the home,
// the walk that rebuilds it, and the session counters.
#include "server/vfs/quota.h"

#include <sys/stat.h>

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
  struct stat st {};
  if (stat(fname.c_str(), &st) == 0 && time(nullptr) - st.st_mtime > kQuotaFileMaxAge) {
    quota_rebuild_logged(l);
    remove(fname.c_str());
    return 1;
  }
  FilePtr f(fopen(fname.c_str(), "re"));
  if (!f) {
    int err = errno;
    imsg("cmd_quota_read errno is %d (%s)\n", err, errtext(err).c_str());
    if (err != ENOENT) return 0;
    quota_rebuild_logged(l);
    return 1;
  }
  std::string line;
  int c;
  while (line.size() < kQuotaLineMax && (c = fgetc(f.get())) != EOF && c != '\n') line.push_back(static_cast<char>(c));
  f.reset();
  remove(fname.c_str());
  l->quota_was = int64bit_atoi(line.c_str());
  imsg("Quota read from file %sk\n", kbytes(l->quota_was).c_str());
  return 1;
}

int cmd_quota_write(Link* l) {
  if (l->quota <= 0 || ini_true(l, INI_GLOBAL_NOQUOTA)) return 0;
  if (!cmd_quota_read(l)) return 0;
  std::string fname;
  cmd_quota_file(l, fname);
  FilePtr f(fopen(fname.c_str(), "we"));
  std::string text = i64_to_cstr(l->quota_was + l->quota_change);
  if (!f || fputs(text.c_str(), f.get()) == EOF || fclose(f.release()) != 0) {
    imsg("Unable to write quota file (%s) (%s)\n", fname.c_str(), errtext(errno).c_str());
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
