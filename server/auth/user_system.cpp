// System logins: the shadow entry (or the passwd entry when shadow is not
// readable), expiry, the shell list and the password hash; and the account
// lookups. All libc calls here are the reentrant forms, or run under PASSWORD
// where the C library keeps one stream for the process.
#include "server/auth/user_system.h"

#include <crypt.h>
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "base/str.h"
#include "common/emsg.h"
#include "common/mutex.h"

namespace korv {
namespace {

constexpr long kSecondsPerDay = 86400;

std::string errtext(int e) {
  char bf[256];
  return strerror_r(e, bf, sizeof bf);
}

// One password entry and the storage its strings point into.
struct Passwd {
  passwd pw{};
  std::vector<char> buf;
};

// getpwnam_r with a growing buffer. 1 found, 0 unknown (errno 0) or an error
// (its errno left in *err).
int lookup_passwd(const char* user, Passwd& out, int* err) {
  out.buf.resize(4096);
  for (;;) {
    passwd* res = nullptr;
    int e = getpwnam_r(user, &out.pw, out.buf.data(), out.buf.size(), &res);
    if (e == ERANGE && out.buf.size() < (1u << 20)) {
      out.buf.resize(out.buf.size() * 2);
      continue;
    }
    *err = e;
    return res != nullptr ? 1 : 0;
  }
}

struct Shadow {
  spwd sp{};
  std::vector<char> buf;
};

int lookup_shadow(const char* user, Shadow& out, int* err) {
  out.buf.resize(4096);
  for (;;) {
    spwd* res = nullptr;
    int e = getspnam_r(user, &out.sp, out.buf.data(), out.buf.size(), &res);
    if (e == ERANGE && out.buf.size() < (1u << 20)) {
      out.buf.resize(out.buf.size() * 2);
      continue;
    }
    *err = res != nullptr ? 0 : (e != 0 ? e : ENOENT);
    return res != nullptr ? 1 : 0;
  }
}

// Is `shell` one of the login shells of /etc/shells? getusershell keeps one
// stream for the process; the caller holds PASSWORD.
bool shell_listed(const std::string& shell) {
  bool found = false;
  setusershell();
  for (const char* s = getusershell(); s != nullptr; s = getusershell()) {
    if (shell == s) {
      found = true;
      break;
    }
  }
  endusershell();
  return found;
}

bool password_matches(const char* pass, const std::string& hash) {
  auto data = std::make_unique<crypt_data>();
  const char* out = crypt_rn(pass, hash.c_str(), data.get(), sizeof(crypt_data));
  return out != nullptr && hash == out;
}

}  // namespace

int user_login(const char* domain, const char* user, const char* pass, UtokenPtr& utoken,
               std::string& result) {
  (void)domain;
  (void)result;
  if (utoken) {
    emsg("user_login failed, *utoken!=NULL\n");
    return 0;
  }
  if (user == nullptr) user = "";
  // The entries come through the reentrant calls and crypt_rn, so logins run
  // side by side on every core; PASSWORD guards only the shared streams of
  // the shell list and the group walk.
  int uid = 0, gid = 0;
  std::string dir, shell, hash;
  Shadow sh;
  Passwd pw;
  int err = 0;
  if (!lookup_shadow(user, sh, &err)) {
    imsg("Could not get shadow password info for %.500s %.500s\n", user, errtext(err).c_str());
    if (!lookup_passwd(user, pw, &err)) {
      imsg("Account doesn't exist (%.500s)\n", user);
      return 0;
    }
    if (pw.pw.pw_passwd == nullptr) {
      imsg("No password for (%.500s) \n", user);
      return 0;
    }
    uid = static_cast<int>(pw.pw.pw_uid);
    gid = static_cast<int>(pw.pw.pw_gid);
    dir = pw.pw.pw_dir != nullptr ? pw.pw.pw_dir : "";
    shell = pw.pw.pw_shell != nullptr ? pw.pw.pw_shell : "";
    hash = pw.pw.pw_passwd;
  } else {
    long today = static_cast<long>(time(nullptr) / kSecondsPerDay);
    const spwd& s = sh.sp;
    if ((s.sp_expire > 0 && s.sp_expire < today) ||
        (s.sp_max > 0 && s.sp_lstchg + s.sp_max < today)) {
      imsg("Account password expired (%.500s)\n", user);
      return 0;
    }
    if (s.sp_pwdp == nullptr) {
      imsg("No password for (%.500s) \n", user);
      return 0;
    }
    if (!lookup_passwd(user, pw, &err)) {
      imsg("getpwnam failed after shadow worked %s\n", user);
      return 0;
    }
    uid = static_cast<int>(pw.pw.pw_uid);
    gid = static_cast<int>(pw.pw.pw_gid);
    dir = pw.pw.pw_dir != nullptr ? pw.pw.pw_dir : "";
    shell = pw.pw.pw_shell != nullptr ? pw.pw.pw_shell : "";
    if (uid < 0) {
      imsg("could not lookup uid \n");
      return 0;
    }
    hash = s.sp_pwdp;
  }
  if (hash.empty()) {
    imsg("No password for (%.500s) \n", user);
    return 0;
  }
  if (shell.empty()) {
    imsg("No shell for (%.500s) \n", user);
    return 0;
  }
  bool listed;
  {
    MutexHold hold(MUTEX_PASSWORD);
    listed = shell_listed(shell);
  }
  if (!listed) {
    imsg("Shell not found in /etc/shells (%s)\n", shell.c_str());
    return 0;
  }
  if (pass != nullptr && !password_matches(pass, hash)) {
    imsg("Password failed for user (%.500s), you might need to run korvane as root to access "
         "the shadow password file \n",
         user);
    return 0;
  }
  UtokenPtr u(new UTOKEN);
  u->uid = uid;
  u->gid = gid;
  u->home = dir;
  u->ftphome = dir;  // "" means none
  u->user = user;
  unix_lookup_groups(user, gid, u->usergroups);
  utoken = std::move(u);
  return 1;
}

int unix_lookup_groups(const char* user, int gid, WordlistPtr& glist) {
  if (user == nullptr) user = "";
  MutexHold hold(MUTEX_PASSWORD);
  int added = 0;
  std::vector<char> buf(16384);
  group g{};
  setgrent();
  for (;;) {
    group* res = nullptr;
    int e = getgrent_r(&g, buf.data(), buf.size(), &res);
    if (e == ERANGE && buf.size() < (1u << 22)) {
      buf.resize(buf.size() * 2);  // the same entry is read again
      continue;
    }
    if (e != 0 || res == nullptr) break;
    bool member = static_cast<int>(g.gr_gid) == gid;
    for (char** m = g.gr_mem; !member && m != nullptr && *m != nullptr; m++)
      member = strcmp(*m, user) == 0;
    if (member && g.gr_name != nullptr) {
      word_add(glist, str_lower(g.gr_name));
      added++;
    }
  }
  endgrent();
  return added;
}

int user_getinfo(const char* user, int* uid, int* gid, std::string& dir) {
  dir.clear();
  if (user == nullptr || *user == 0) return 1;
  MutexHold hold(MUTEX_PASSWORD);
  Passwd pw;
  int err = 0;
  if (!lookup_passwd(user, pw, &err)) return 0;
  if (uid != nullptr) *uid = static_cast<int>(pw.pw.pw_uid);
  if (gid != nullptr) *gid = static_cast<int>(pw.pw.pw_gid);
  dir = pw.pw.pw_dir != nullptr ? pw.pw.pw_dir : "";
  return 1;
}

std::string unix_home_lookup(const char* user) {
  if (user == nullptr) user = "";
  MutexHold hold(MUTEX_PASSWORD);
  Passwd pw;
  int err = 0;
  if (!lookup_passwd(user, pw, &err)) {
    imsg("Account doesn't exist (%.500s)\n", user);
    return "";
  }
  return pw.pw.pw_dir != nullptr ? pw.pw.pw_dir : "";
}

std::string user_home_lookup(const char* user) { return unix_home_lookup(user); }

}  // namespace korv
