// File calls on behalf of a client: translate, test the rule, become the
// user, call, become the server again, and put the system's text in etext.
#include "server/vfs/vfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/files.h"
#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vdir_rules.h"

namespace korv {

namespace {

// open(2) flags of an fopen-style mode; -1 for a mode that is not one.
int open_flags(const char* mode) {
  if (!mode || !*mode) return -1;
  bool plus = std::strchr(mode, '+') != nullptr;
  switch (mode[0]) {
    case 'r':
      return plus ? O_RDWR : O_RDONLY;
    case 'w':
      return (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    case 'a':
      return (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default:
      return -1;
  }
}

// fdopen's mode for the same flags, without the letters that only fopen knows.
const char* fdopen_mode(const char* mode) {
  bool plus = std::strchr(mode, '+') != nullptr;
  switch (mode[0]) {
    case 'r':
      return plus ? "r+" : "r";
    case 'w':
      return plus ? "w+" : "w";
    default:
      return plus ? "a+" : "a";
  }
}

bool path_exists(const std::string& p) {
  struct stat st {};
  return ::lstat(p.c_str(), &st) == 0 || ::stat(p.c_str(), &st) == 0;
}

// mkdir, then the session's mode on the new directory whatever the process
// mask took away.
int mkdir_mode(const std::string& path, int mode) {
  if (lib_mkdir(path.c_str(), mode) != 0) return -1;
  ::chmod(path.c_str(), static_cast<mode_t>(mode));
  return 0;
}

// The last steps shared by the wrappers: back to the server's identity, then
// 1, or 0 with the system's text for `err` (taken before the revert).
int revert_with_result(Link* l, int r, int err, std::string& etext) {
  vdir_revert(l);
  if (r != 0) {
    etext = errtext(err);
    return 0;
  }
  return 1;
}

// The first steps shared by the rule-tested wrappers: translation, the rule
// word, impersonation. 1 with `real` set and the identity switched (the
// caller reverts), or 0 with `etext` and nothing to revert.
int translate_test_become(Link* l, std::string_view fname, const char* word, std::string& real,
                          std::string& etext, const char* deny_format) {
  std::string virt;
  if (!vdir_fname(real, virt, l, fname, etext)) return 0;
  std::string e2;
  if (word && !vdir_access(l, fname, word, e2)) {
    etext = strfmt(deny_format, e2.c_str());
    return 0;
  }
  if (!vdir_impersonate(l)) {
    etext = strfmt("Impersonate failed %s", errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  return 1;
}

}  // namespace

FILE* vfile_open_real(const char* path, const char* mode, int umask) {
  int flags = open_flags(mode);
  if (flags < 0) {
    errno = EINVAL;
    return nullptr;
  }
  const mode_t perm = static_cast<mode_t>(0666 & ~umask);
  bool created = false;
  int fd;
  if (flags & O_CREAT) {
    // Tell a new file from an existing one, so that only a new one has its
    // mode set.
    do {
      fd = ::open(path, (flags & ~O_TRUNC) | O_CREAT | O_EXCL | O_CLOEXEC, perm);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) {
      created = true;
    } else if (errno == EEXIST) {
      do {
        fd = ::open(path, (flags & ~O_CREAT) | O_CLOEXEC);
      } while (fd < 0 && errno == EINTR);
    }
  } else {
    do {
      fd = ::open(path, flags | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
  }
  if (fd < 0) return nullptr;
  if (created) ::fchmod(fd, perm);
  FILE* f = ::fdopen(fd, fdopen_mode(mode));
  if (!f) {
    int err = errno;
    ::close(fd);
    errno = err;
  }
  return f;
}

int pre_vfopen_check_all(Link* l, std::string_view fname, const char* mode, std::string& etext,
                         std::string& bf, long long* q) {
  *q = 0;
  std::string name(fname.substr(0, strnlen(fname.data(), fname.size())));
  if (vdir_invalid(name.c_str())) {
    emsg("Vfopen, invalid filename (%s)\n", name.c_str());
    etext = strfmt("Invalid filename (%s)", name.c_str());
    return 0;
  }
  std::string virt;
  if (!vdir_fname(bf, virt, l, fname, etext)) return 0;
  // "r+" (a resumed upload) changes the file: it is tested as a write.
  const bool writing = mode[0] != 'r' || std::strchr(mode, '+') != nullptr;
  std::string e2;
  if (!vdir_access(l, fname, writing ? "write" : "read", e2)) {
    etext = strfmt("Virtual %s", e2.c_str());
    return 0;
  }
  if (writing && vquota_exceeded(l, e2)) {
    etext = strfmt("FTP Quota %s exceeded", e2.c_str());
    return 0;
  }
  if (!vdir_impersonate(l)) {
    etext = strfmt("Impersonate failed %s", errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  const bool existed = path_exists(bf);
  if (writing && existed) {
    // Overwriting or appending changes the old file: it needs the right to delete.
    if (!vdir_access(l, fname, "del", e2)) {
      etext = strfmt("Virtual %s", e2.c_str());
      vdir_revert(l);
      return 0;
    }
    if (mode[0] == 'w') {
      long long sz = i64_file_size(bf.c_str());
      *q = sz > 0 ? sz : 0;
    }
  }
  FilePtr test(vfile_open_real(bf.c_str(), mode, l->cur_umask));
  if (!test) {
    etext = strfmt("OS & File System Error: (%s) %s", name.c_str(), errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  test.reset();
  if (!existed && ::remove(bf.c_str()) != 0) {
    etext = strfmt("OS & File System Error: cant remove? (%s) %s", name.c_str(), errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  vdir_revert(l);
  return 1;
}

int vfopen(Link* l, std::string_view fname, const char* mode, FilePtr& f, std::string& etext) {
  if (f) {
    // A caller's fault: it still holds a file.
    emsg("vfopen passed non null file pointer\n");
    etext = "vfopen passed non null file pointer";
    return 0;
  }
  std::string real;
  long long q = 0;
  if (!pre_vfopen_check_all(l, fname, mode, etext, real, &q)) return 0;
  if (!vdir_impersonate(l)) {
    etext = strfmt("Impersonate failed %s", errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  dmsg("Effective uid=[%d] gid=[%d]\n", static_cast<int>(geteuid()), static_cast<int>(getegid()));
  f.reset(vfile_open_real(real.c_str(), mode, l->cur_umask));
  int err = errno;
  if (f && q != 0) vquota_add(l, -q);
  vdir_revert(l);
  if (!f) {
    etext = errtext(err);
    if (real.find(".message") != std::string::npos && err == ENOENT)
      dmsg("Unable to open (%s) %s\n", real.c_str(), etext.c_str());
    else
      imsg("Unable to open (%s) %s\n", real.c_str(), etext.c_str());
    return 0;
  }
  return 1;
}

int vfclose(Link* l, FilePtr& f, std::string& etext) {
  if (!f) {
    emsg("vfclose failed, pointer already NULL\n");
    etext = "vfclose failed, pointer already NULL";
    return 0;
  }
  if (!vdir_impersonate(l)) {
    etext = strfmt("Impersonate failed %s", errtext(errno).c_str());
    vdir_revert(l);
    f.reset();
    return 0;
  }
  int r = std::fclose(f.release());
  return revert_with_result(l, r, errno, etext);
}

int vrename(Link* l, std::string_view f1, std::string_view f2, std::string& etext) {
  std::string e2;
  std::string n1(f1);
  for (std::string_view f : {f1, f2}) {
    if (!vdir_access(l, f, "rename", e2)) {
      etext = strfmt("Virtual %s (%s)", e2.c_str(), n1.c_str());
      return 0;
    }
  }
  std::string r1, r2, virt;
  if (!vdir_fname(r1, virt, l, f1, etext)) return 0;
  if (!vdir_fname(r2, virt, l, f2, etext)) return 0;
  if (!vdir_impersonate(l)) {
    etext = strfmt("Impersonate failed %s", errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  imsg("rename (%.100s) (%.100s)\n", r1.c_str(), r2.c_str());
  int r = std::rename(r1.c_str(), r2.c_str());
  return revert_with_result(l, r, errno, etext);
}

int vremove(Link* l, std::string_view fname, std::string& etext) {
  std::string real;
  if (!translate_test_become(l, fname, "del", real, etext, "Virtual %s")) return 0;
  long long size = i64_file_size(real.c_str());
  if (size < 0) size = 0;
  int r = std::remove(real.c_str());
  int err = errno;
  // Credited only once the file is really gone.
  if (r == 0) vquota_add(l, -size);
  vdir_revert(l);
  if (r != 0) {
    etext = errtext(err);
    return 0;
  }
  return 1;
}

int vrmdir(Link* l, std::string_view fname, std::string& etext) {
  std::string real;
  if (!translate_test_become(l, fname, "del", real, etext, "access denied (korvane setting)")) return 0;
  int r = ::rmdir(real.c_str());
  return revert_with_result(l, r, errno, etext);
}

int vmkdir(Link* l, std::string_view fname, std::string& etext) { return do_vmkdir(l, fname, etext, 0); }

int make_lower_directory(const std::string& path, int mode) {
  size_t sep = path.find_last_of('/');
  if (sep == std::string::npos || sep < 2) return -1;
  std::string parent = path.substr(0, sep);
  int r = mkdir_mode(parent, mode);
  if (r != 0) {
    make_lower_directory(parent, mode);
    r = mkdir_mode(parent, mode);
  }
  return r;
}

int do_vmkdir(Link* l, std::string_view fname, std::string& etext, int skip_access) {
  etext = "unknown problem";
  std::string real, virt, e2;
  if (!vdir_fname(real, virt, l, fname, e2)) {
    etext = "unavailable directory location";
    return 0;
  }
  if (!skip_access && !vdir_access(l, fname, "mkdir", etext)) return 0;
  // The home at login is made by the server, whose right to make it the
  // acting user lacks, and then handed to that user.
  const bool home = skip_access != 0;
  if (!home && !vdir_impersonate(l)) {
    etext = strfmt("Impersonate failed %s", errtext(errno).c_str());
    vdir_revert(l);
    return 0;
  }
  auto leave = [&] {
    if (!home) vdir_revert(l);
  };
  if (real.size() > 1 && real.back() == '/') real.pop_back();
  struct stat st {};
  if (::stat(real.c_str(), &st) == 0) {
    leave();
    if (S_ISDIR(st.st_mode)) {
      etext = "directory exists";
      return 1;
    }
    errno = EACCES;
    etext = "file exists in wanted location of directory";
    return 0;
  }
  const int mode = ~l->cur_umask & 0777;
  int r = 0;
  // An empty path, the root and a drive form count as made.
  bool nothing_to_make = real.empty() || real == "/" || (real.size() == 2 && real[1] == ':');
  if (!nothing_to_make) {
    r = mkdir_mode(real, mode);
    if (r != 0 && errno == ENOENT) {
      if (make_lower_directory(real, mode) == 0) r = mkdir_mode(real, mode);
    }
  }
  int err = errno;
  leave();
  if (r != 0) {
    etext = strfmt("%.100s", errtext(err).c_str());
    return 0;
  }
  const Utoken* owner = home && !nothing_to_make ? vdir_acting_token(l) : nullptr;
  if (owner != nullptr && ::lchown(real.c_str(), static_cast<uid_t>(owner->uid), static_cast<gid_t>(owner->gid)) != 0)
    dmsg("home %s stays the server's: %s\n", real.c_str(), errtext(errno).c_str());
  etext = "created the directory";
  return 1;
}

int vlib_chmod(Link* l, std::string_view fname, const char* mode, std::string& etext) {
  unsigned int m = 0;
  if (std::sscanf(mode, "%o", &m) != 1) m = 0;
  m &= 0777;  // no set-id or sticky bit from a client
  std::string real;
  if (!translate_test_become(l, fname, "write", real, etext, "Virtual %s")) return 0;
  imsg("chmod (%s) (%o)\n", real.c_str(), m);
  int r = lib_chmod(real.c_str(), static_cast<int>(m));
  return revert_with_result(l, r, errno, etext);
}

namespace {

// Stats a plain file under the user's identity; the failure text in etext.
int stat_plain_file(Link* l, std::string_view fname, std::string& etext, struct stat* st) {
  std::string real;
  if (!translate_test_become(l, fname, "read", real, etext, "Virtual %s")) return 0;
  int r = ::stat(real.c_str(), st);
  int err = errno;
  vdir_revert(l);
  if (r != 0) {
    etext = errtext(err);
    return 0;
  }
  if (!S_ISREG(st->st_mode)) {
    etext = "Not a plain file";
    return 0;
  }
  return 1;
}

}  // namespace

time_t vlib_mtime(Link* l, std::string_view fname, std::string& etext) {
  struct stat st {};
  if (!stat_plain_file(l, fname, etext, &st)) return 0;
  return st.st_mtime;
}

int vlib_file_size(Link* l, std::string_view fname, std::string& etext, long long* filesize) {
  struct stat st {};
  if (!stat_plain_file(l, fname, etext, &st)) return 0;
  *filesize = static_cast<long long>(st.st_size);
  return 1;
}

namespace {

int set_time(Link* l, std::string_view fname, time_t dte, std::string& etext, int (*fn)(const char*, time_t)) {
  std::string real;
  if (!translate_test_become(l, fname, "del", real, etext, "Virtual %s")) return 0;
  int r = fn(real.c_str(), dte);
  int err = errno;
  vdir_revert(l);
  if (!r) {
    etext = errtext(err);
    return 0;
  }
  return 1;
}

// vexists and visdir: translation, identity, stat; `want_dir` asks for a directory.
int stat_test(Link* l, std::string_view fname, std::string& etext, bool want_dir) {
  etext = "vexists";
  std::string real;
  if (!translate_test_become(l, fname, nullptr, real, etext, "%s")) return 0;
  struct stat st {};
  int r = ::stat(real.c_str(), &st);
  int err = errno;
  vdir_revert(l);
  if (r != 0) {
    etext = errtext(err);
    dmsg("vexists: File not found (%s) (%s)\n", real.c_str(), etext.c_str());
    return 0;
  }
  if (want_dir && !S_ISDIR(st.st_mode)) {
    etext = errtext(ENOTDIR);
    return 0;
  }
  return 1;
}

}  // namespace

int v_file_set_modified_time(Link* l, std::string_view fname, time_t dte, std::string& etext) {
  return set_time(l, fname, dte, etext, file_set_modified_time);
}

int v_file_set_created_time(Link* l, std::string_view fname, time_t dte, std::string& etext) {
  return set_time(l, fname, dte, etext, file_set_created_time);
}

int vexists(Link* l, std::string_view fname, std::string& etext) { return stat_test(l, fname, etext, false); }

int visdir(Link* l, std::string_view fname, std::string& etext) { return stat_test(l, fname, etext, true); }

}  // namespace korv
