// Logins against the system password files (shadow, passwd, /etc/shells and
// crypt), and the lookups of system accounts: groups, ids and homes.
#pragma once

#include <string>

#include "base/lists.h"
#include "server/auth/user.h"

namespace korv {

// A system login. The caller holds PASSWORD. A null `pass` tests no password
// (the caller only asks who the user is). Failures are logged, never written
// to `result`. 1 with `utoken` made, or 0.
int user_login(const char* domain, const char* user, const char* pass, UtokenPtr& utoken,
               std::string& result);
// Adds, in lower case, each group whose id is `gid` or whose member list holds
// `user`. The caller holds PASSWORD. Returns the number added.
int unix_lookup_groups(const char* user, int gid, WordlistPtr& glist);
// uid, gid and home of a system account. 0 if unknown; an empty `user`
// returns 1 and only clears `dir`.
int user_getinfo(const char* user, int* uid, int* gid, std::string& dir);
// The home of a system account, or "" (logged) if unknown.
std::string unix_home_lookup(const char* user);
std::string user_home_lookup(const char* user);

}  // namespace korv
