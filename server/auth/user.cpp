// The login engine: tokens, the entry for every login with its lower-case
// retries, logins through a module (cache first), the reading of a module's
// answer into a token, and the switch of a session thread's effective identity.
#include "server/auth/user.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "base/fmt.h"
#include "base/identity.h"
#include "base/str.h"
#include "base/tokens.h"
#include "base/wild.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "server/auth/auth_setups.h"
#include "server/auth/mex_auths.h"
#include "server/auth/user_cache.h"
#include "server/auth/user_system.h"

namespace korv {
namespace {

constexpr size_t kSpawnUserMax = 200;   // the name sent to a module is cut here
constexpr size_t kResultCopyMax = 999;  // the answer kept for the cache
constexpr int kMaxGroups = 100;         // groups read from a module's answer
constexpr int kNobodyId = 65534;        // uid and gid when neither ftp nor nobody exists

std::atomic<UserCheckFn> check_fn{nullptr};

int module_check(const char* domain, const char* user, const char* pass, std::string& result) {
  UserCheckFn fn = check_fn.load();
  return fn != nullptr ? fn(domain, user, pass, result) : mex_check(domain, user, pass, result);
}

bool has_upper(const std::string& s) {
  for (char c : s)
    if (isupper(static_cast<unsigned char>(c))) return true;
  return false;
}

std::string errtext(int e) {
  char bf[256];
  return strerror_r(e, bf, sizeof bf);
}

}  // namespace

const char* const accountstatus_messages[kAccountStatusMax + 1] = {
    " User account ok.",
    " User account ok.",
    " Account suspended, please contact us.",
    " Account cancelled.",
    " Account closed.",
    " Your account has been banned for inappropriate use.",
    " Payment is due for this account, please pay asap.",
    " Please pay us more money to continue the service.",
};

void UtokenFree::operator()(UTOKEN* u) const { delete u; }

void user_set_check_fn(UserCheckFn fn) { check_fn.store(fn); }

int user_utoken_free(Utoken* u) {
  delete u;
  return 1;
}

int user_logoff(UtokenPtr& uu) {
  uu.reset();
  return 1;
}

const char* user_home(const Utoken* u) { return u ? u->home.c_str() : "/home/users"; }

int determine_account_status(const char* s) {
  if (s == nullptr) return 1;
  static const struct {
    const char* word;
    int status;
  } words[] = {{"ok", 1},     {"good", 1},   {"suspended", 2}, {"cancelled", 3},
               {"closed", 4}, {"banned", 5}, {"bad", 5},       {"paydue", 6},
               {"due", 6},    {"payup", 7},  {"payus", 7}};
  for (const auto& w : words)
    if (strcmpnc(s, w.word) == 0) return w.status;
  char* end = nullptr;
  errno = 0;
  long n = strtol(s, &end, 10);
  if (end != s && *end == 0 && errno == 0 && n >= 1 && n <= kAccountStatusMax)
    return static_cast<int>(n);
  return 1;
}

long long mynice_int64bit_atoi(const char* s) {
  if (s == nullptr) return 0;
  while (*s == ' ' || *s == '\t') s++;
  bool neg = *s == '-';
  if (*s == '-' || *s == '+') s++;
  unsigned long long v = 0;
  bool big = false;
  for (; isdigit(static_cast<unsigned char>(*s)); s++) {
    if (v > (ULLONG_MAX - 9) / 10) big = true;
    if (!big) v = v * 10 + static_cast<unsigned>(*s - '0');
  }
  unsigned long long factor = 1;
  switch (tolower(static_cast<unsigned char>(*s))) {  // "g", "gb", "gig"; "m", "mb"; "k"
    case 'g':
      factor = 1000000000ULL;
      break;
    case 'm':
      factor = 1000000ULL;
      break;
    case 'k':
      factor = 1000ULL;
      break;
    default:
      break;
  }
  if (big || v > static_cast<unsigned long long>(LLONG_MAX) / factor) return neg ? LLONG_MIN : LLONG_MAX;
  long long r = static_cast<long long>(v * factor);
  return neg ? -r : r;
}

int load_result_into_token(UtokenPtr& utoken, const char* user, std::string& result) {
  if (!utoken) utoken.reset(new UTOKEN);
  UTOKEN& u = *utoken;
  if (user == nullptr) user = "";
  u.home = strfmt("/home/%s", user);
  u.ftphome.clear();
  u.user = user;
  u.droppath.clear();  // no module data reaches it
  std::string groups, v;
  mex_decode(result, "groups", groups);
  // A module that names no system account gets the unprivileged one, never
  // the server's own root.
  const Utoken* anon = user_anonymous_token();
  const bool has_uid = mex_decode(result, "ftpuid", v);
  u.uid = has_uid ? atoi(v.c_str()) : anon->uid;
  u.sysgroups = has_uid ? 1 : 0;
  u.gid = mex_decode(result, "ftpgid", v) ? atoi(v.c_str()) : anon->gid;
  if (mex_decode(result, "ftpquota", v)) u.quota = mynice_int64bit_atoi(v.c_str());
  if (mex_decode(result, "ftpfromip", v)) u.from_ip = v;
  if (mex_decode(result, "dailyquota", v)) u.dailyquota = mynice_int64bit_atoi(v.c_str());
  if (mex_decode(result, "tohost", v)) u.tohost = v;
  std::string ftphome;
  mex_decode(result, "ftphome", ftphome);
  u.accountstatus = mex_decode(result, "accountstatus", v) ? determine_account_status(v.c_str()) : 1;
  if (!ftphome.empty()) {
    u.ftphome = ftphome;
    dmsg("got ftp home (%s)\n", ftphome.c_str());
  }
  if (!groups.empty()) {
    std::vector<char> buf(groups.begin(), groups.end());
    buf.push_back(0);
    char* p[kMaxGroups + 1] = {};
    int n = token_split(buf.data(), p, ", \t", kMaxGroups + 1);
    for (int i = 0; i < n; i++) word_add(u.usergroups, str_lower(p[i]));
  }
  return 1;
}

int user_spawn_login_nocache(const char* domain, const char* user, const char* pass,
                             UtokenPtr& utoken, std::string& result,
                             std::string& original_result) {
  if (domain == nullptr) domain = "";
  if (user == nullptr) user = "";
  // Checked before the cut: a long name must not log in as its own head.
  if (!mex_name_ok(user)) {
    result = kMexBadName;
    original_result = result;
    imsg("Spawned login error (%.500s)\n", result.c_str());
    return 0;
  }
  std::string working = std::string(user).substr(0, kSpawnUserMax);
  if (*domain != 0 && user_isauthdom(domain)) {
    working = strfmt("%s@%s", working.c_str(), domain);
    dmsg("isauthdom so adding domain (%s) (%s) \n", domain, working.c_str());
  }
  int ok = module_check(domain, working.c_str(), pass, result);
  size_t cut = result.find('\n');
  if (cut != std::string::npos) result.resize(cut);
  cut = result.find('\r');
  if (cut != std::string::npos) result.resize(cut);
  original_result = result.substr(0, kResultCopyMax);
  if (ok) {
    dmsg("response: %.400s\n", result.c_str());
    utoken.reset(new UTOKEN);
    std::string fields = result;  // the answer stays whole for the caller
    load_result_into_token(utoken, user, fields);
  } else {
    imsg("Spawned login error (%.500s)\n", result.c_str());
  }
  return ok ? 1 : 0;
}

int user_spawn_login(const char* domain, const char* user, const char* pass, UtokenPtr& utoken,
                     std::string& result) {
  result.clear();
  if (user_cache_ok_login(domain, user, pass, utoken)) return 1;
  std::string original;
  // The module is asked without PASSWORD held: other logins go on meanwhile.
  int ok = user_spawn_login_nocache(domain, user, pass, utoken, result, original);
  if (ok) user_cache_ok_add(domain, user, pass, original.c_str());
  return ok;
}

int user_login_generic_real(const char* xdomain, const char* xuser, const char* xpass,
                            UtokenPtr& utoken, std::string& result) {
  if (utoken) {
    result = "Aborting user_login_generic utoken ptr not NULL";
    emsg("%s\n", result.c_str());
    return 0;
  }
  std::string domain = str_lower(xdomain != nullptr ? xdomain : "");
  std::string user = xuser != nullptr ? xuser : "";
  std::string pass = xpass != nullptr ? xpass : "";
  const char* p = xpass != nullptr ? pass.c_str() : nullptr;
  bool user_lowered = false, pass_lowered = false;
  int ok = 0;
  for (;;) {
    result.clear();
    if (isspawn(domain.c_str())) {
      ok = user_spawn_login(domain.c_str(), user.c_str(), p, utoken, result);
    } else {
      ok = user_login(domain.c_str(), user.c_str(), p, utoken, result);
    }
    if (ok) break;
    // Clients with a caps habit get in: the name, then the password, in lower case.
    if (!user_lowered && has_upper(user)) {
      user_lowered = true;
      user = str_lower(user);
      continue;
    }
    if (p != nullptr && !pass_lowered && has_upper(pass)) {
      pass_lowered = true;
      pass = str_lower(pass);
      p = pass.c_str();
      continue;
    }
    break;
  }
  dmsg("user_login_generic(%s,%s,******,%d) %s\n", domain.c_str(), user.c_str(), ok,
       result.c_str());
  return ok;
}

int user_login_generic(const char* xdomain, const char* xuser, const char* xpass,
                       UtokenPtr& utoken, std::string& result, const char* fromip) {
  int ok = user_login_generic_real(xdomain, xuser, xpass, utoken, result);
  const char* ip = fromip != nullptr ? fromip : "";
  const char* user = xuser != nullptr ? xuser : "";
  const char* domain = xdomain != nullptr ? xdomain : "";
  if (ok)
    syslog_auth(strfmt("%s %s@%s Login ok", ip, user, domain).c_str());
  else
    syslog_auth(strfmt("%s %s@%s Login failed (%s)", ip, user, domain, result.c_str()).c_str());
  return ok;
}

int user_has_group_membership(const Utoken* user, const char* groupname) {
  if (user == nullptr || groupname == nullptr) return 0;
  for (const Wordlist* w = user->usergroups.get(); w != nullptr; w = w->next.get())
    if (lib_match_list(groupname, w->word.c_str())) return 1;
  return 0;
}

int user_become(UtokenPtr& uu, const char* user, std::string& reason) {
  if (user != nullptr && *user != 0) {
    MutexHold hold(MUTEX_PASSWORD);
    passwd pw{};
    std::vector<char> buf(16384);
    passwd* res = nullptr;
    int e = getpwnam_r(user, &pw, buf.data(), buf.size(), &res);
    if (res != nullptr) {
      // Made only for an account that exists: a fresh token would be root.
      if (!uu) uu.reset(new UTOKEN);
      uu->uid = static_cast<int>(pw.pw_uid);
      uu->gid = static_cast<int>(pw.pw_gid);
      uu->sysgroups = 0;  // the groups follow the name only once it is the account's
      if (pw.pw_dir != nullptr && *pw.pw_dir != 0) {
        uu->sysgroups = 1;
        uu->home = pw.pw_dir;
        uu->ftphome.clear();
        uu->user = user;
      }
    } else {
      reason = e == ENOMEM ? "Insufficient memory to allocate passwd structure."
                           : strfmt("%s not found in system password database file.", user);
      dmsg("%s\n", reason.c_str());
    }
  }
  // An acting user that does not exist does not fail the login.
  reason.clear();
  return 1;
}

namespace {

// Switching needs root; without it every session already is the server's user.
// The saved uid stays root while a thread acts as someone else.
bool can_switch() {
  uid_t r = 0, e = 0, saved = 0;
  return getresuid(&r, &e, &saved) == 0 && saved == 0;
}

}  // namespace

const Utoken* user_anonymous_token() {
  static const std::unique_ptr<UTOKEN> token = [] {
    auto t = std::make_unique<UTOKEN>();
    t->uid = t->gid = kNobodyId;
    for (const char* name : {"ftp", "nobody"}) {
      passwd pw{};
      std::vector<char> buf(16384);
      passwd* res = nullptr;
      if (getpwnam_r(name, &pw, buf.data(), buf.size(), &res) == 0 && res != nullptr) {
        t->user = name;
        t->uid = static_cast<int>(pw.pw_uid);
        t->gid = static_cast<int>(pw.pw_gid);
        break;
      }
    }
    return t;
  }();
  return token.get();
}

int user_impersonate(const Utoken* u) {
  if (u == nullptr) {
    imsg("impersonate not enabled\n");
    return 1;
  }
  if (!can_switch()) return 1;
  // Only this thread changes identity (base/identity.h): other sessions keep
  // their own and need not wait.
  if (thread_setegid(static_cast<gid_t>(u->gid)) != 0) {
    emsg("Setegid failed user=%d %.500s\n", u->gid, errtext(errno).c_str());
    return 0;
  }
  const int groups = u->sysgroups == 0 ? thread_setgroups_one(static_cast<gid_t>(u->gid))
                     : !u->user.empty() ? thread_initgroups(u->user.c_str(), static_cast<gid_t>(u->gid))
                                        : 0;
  if (groups != 0) {
    emsg("initgroups failed user=%s group=%d %.500s\n", u->user.c_str(), u->gid,
         errtext(errno).c_str());
    return 0;
  }
  if (thread_seteuid(static_cast<uid_t>(u->uid)) != 0) {
    emsg("Seteuid failed user=%d %.500s\n", u->uid, errtext(errno).c_str());
    return 0;
  }
  return 1;
}

int user_revert(const Utoken* u) {
  if (u == nullptr || !can_switch()) return 1;
  if (thread_seteuid(0) != 0) emsg("Seteuid restore failed was %d %.500s\n", u->uid, errtext(errno).c_str());
  if (thread_setegid(0) != 0) emsg("Setegid restore failed was %d %.500s\n", u->gid, errtext(errno).c_str());
  if (thread_initgroups("root", 0) != 0) {
    emsg("initgroups failed user=%d %.500s\n", u->uid, errtext(errno).c_str());
    return 0;
  }
  return 1;
}

void user_shutdown() {
  multi_auth_free();
  user_cache_clear();
}

}  // namespace korv
