// The logged-in identity (UTOKEN) and the login engine: system logins, logins
// through an authentication module with the cache of good answers, the
// reading of a module's answer into a token, and the switch of a session thread's
// effective identity around file work.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/lists.h"

namespace korv {

// One logged-in identity, owned by its session.
struct UTOKEN {
  std::string user;     // login name as the session knows it, without any added domain
  std::string home;     // "/home/<user>" for module logins, the password entry's home otherwise
  std::string ftphome;  // FTP home given by the authentication source; "" for none
  std::string realuser;
  WordlistPtr usergroups;  // the user's groups, lower case
  WordlistPtr accessgroups;
  int uid = 0;
  int gid = 0;
  // 1: file work gets the supplementary groups of `user` from the group
  // database; 0: `gid` alone (a module user that names no system account,
  // whose name may be a system account's by chance).
  int sysgroups = 1;
  int accountstatus = 0;  // 1..7, see determine_account_status
  long long dailyquota = 0;
  long long quota = 0;
  int isspawn = 0;
  std::string from_ip;   // the module's ftpfromip field
  std::string droppath;  // always empty on this system
  std::string tohost;    // the module's tohost field

  UTOKEN() = default;
  UTOKEN(const UTOKEN&) = delete;
  UTOKEN& operator=(const UTOKEN&) = delete;
};
using Utoken = UTOKEN;

struct UtokenFree {
  void operator()(UTOKEN* u) const;
};
// The owner a session holds; the C++ form of a `Utoken**` argument is a
// reference to one of these.
using UtokenPtr = std::unique_ptr<UTOKEN, UtokenFree>;

inline constexpr int kAccountStatusMax = 7;

// Frees the token and leaves the owner null. Null is allowed. Returns 1.
int user_logoff(UtokenPtr& uu);
int user_utoken_free(Utoken* u);

// Account status of a module's `accountstatus` word, 1..7; unknown gives 1.
int determine_account_status(const char* s);
// The texts shown after "530 Login Denied." and the like, by status 0..7.
extern const char* const accountstatus_messages[kAccountStatusMax + 1];

// A 64-bit decimal with an optional decimal suffix: "g", "gb", "gig" (1e9),
// "m", "mb" (1e6), "k" (1000), in any case.
long long mynice_int64bit_atoi(const char* s);

// Fills a fresh token from a module's "+OK name text field=\"value\" ..." line.
// `user` is the name as typed. `result` is read and may be changed. Without
// ftpuid/ftpgid the ids are those of user_anonymous_token.
int load_result_into_token(UtokenPtr& utoken, const char* user, std::string& result);

// Entry for every login: tries the name and password, then the name in lower
// case, then the password in lower case. `pass` may be null: no password is
// tested and the source is only asked who the user is. Logs the outcome to
// the authentication syslog with `fromip`. 1 with `utoken` set, or 0 with a
// reason in `result` (a module's answer line, or "").
int user_login_generic(const char* xdomain, const char* xuser, const char* xpass,
                       UtokenPtr& utoken, std::string& result, const char* fromip);
int user_login_generic_real(const char* xdomain, const char* xuser, const char* xpass,
                            UtokenPtr& utoken, std::string& result);

// A login through the domain's module: the cache, then the module.
int user_spawn_login(const char* domain, const char* user, const char* pass, UtokenPtr& utoken,
                     std::string& result);
// One real question to the module; `original_result` gets the answer line
// for the cache.
int user_spawn_login_nocache(const char* domain, const char* user, const char* pass,
                             UtokenPtr& utoken, std::string& result,
                             std::string& original_result);

// 1 if any of the user's groups fits the match list `groupname`.
int user_has_group_membership(const Utoken* user, const char* groupname);

// Takes on the system identity of `user` (the class's acting user): uid, gid,
// and its home. Always 1 with `reason` empty: an unknown user leaves the token
// as it was.
int user_become(UtokenPtr& uu, const char* user, std::string& reason);

// Switches the calling thread's effective identity to `u`'s; other threads
// keep theirs. Null `u` does nothing. user_revert goes back to root, also
// after a failed switch. A server that does not run as root has nothing to
// switch: both do nothing and succeed.
int user_impersonate(const Utoken* u);
int user_revert(const Utoken* u);

// The unprivileged system account that sessions without an account of their
// own act as: `ftp`, else `nobody`, else uid and gid 65534. Looked up once.
// Never null.
const Utoken* user_anonymous_token();

// `home`, or "/home/users" for null.
const char* user_home(const Utoken* u);

// Frees the table of authentication setups, then clears the cache.
void user_shutdown();

// The question put to a module for one login; mex_check unless replaced (by
// tests, with a stand-in module). Null restores mex_check.
using UserCheckFn = int (*)(const char* domain, const char* user, const char* pass,
                            std::string& result);
void user_set_check_fn(UserCheckFn fn);

}  // namespace korv
