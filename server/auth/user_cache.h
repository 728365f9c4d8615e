// The cache of good logins through authentication modules: a ring of 400
// answers, each good for 600 seconds, one entry per user name.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "server/auth/user.h"

namespace korv {

inline constexpr int kUcacheSlots = 400;
inline constexpr int kUcacheMaxAge = 600;  // seconds an answer is reused

// One remembered login.
struct UCACHE {
  std::string domain;               // lower case
  std::string user;                 // as typed, without "@domain"
  std::optional<std::string> pass;  // in clear; none for a lookup
  std::string result;               // the module's answer line
  time_t stored = 0;
  int ret = 0;
};
using Ucache = UCACHE;

// A token from a remembered answer of this user in this domain: `pass` null
// matches any entry of the user, otherwise the stored password must equal it.
// Never with authent_nocache. 1 with `utoken` made, or 0.
int user_cache_ok_login(const char* domain, const char* user, const char* pass, UtokenPtr& utoken);
int user_cache_ok_login_at(const char* domain, const char* user, const char* pass,
                           UtokenPtr& utoken, time_t now);
// Remembers a good answer, dropping every other entry of the same user name.
int user_cache_ok_add(const char* domain, const char* user, const char* pass, const char* result);
int user_cache_ok_add_at(const char* domain, const char* user, const char* pass,
                         const char* result, time_t now);
// Empties all slots. Returns 1.
int user_cache_clear();
// Slots in use, for the status page and tests.
int user_cache_count();

}  // namespace korv
