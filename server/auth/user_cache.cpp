// The cache of good module logins: a ring searched end to end under PASSWORD.
// Expired entries are not swept; they wait to be overwritten.
#include "server/auth/user_cache.h"

#include <array>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/settings/ini.h"

namespace korv {
namespace {

constexpr size_t kResultCopyMax = 999;  // the stored line is read from a copy this long

std::array<std::optional<Ucache>, kUcacheSlots> ulist;
int write_index = 0;

bool nocache() { return ini_true(nullptr, INI_AUTHENT_NOCACHE) != 0; }

}  // namespace

int user_cache_ok_login(const char* domain, const char* user, const char* pass, UtokenPtr& utoken) {
  return user_cache_ok_login_at(domain, user, pass, utoken, time(nullptr));
}

int user_cache_ok_login_at(const char* domain, const char* user, const char* pass,
                           UtokenPtr& utoken, time_t now) {
  if (nocache()) return 0;
  if (domain == nullptr) domain = "";
  if (user == nullptr) user = "";
  MutexHold hold(MUTEX_PASSWORD);
  for (const auto& slot : ulist) {
    if (!slot) continue;
    const Ucache& c = *slot;
    long age = static_cast<long>(now - c.stored);
    if (age > kUcacheMaxAge || c.user != user || c.domain != domain) continue;
    if (pass != nullptr && (!c.pass || *c.pass != pass)) continue;
    std::string line = c.result.substr(0, kResultCopyMax);
    dmsg("cached (%lds) response: %s", age, line.c_str());
    utoken.reset();
    return load_result_into_token(utoken, user, line);
  }
  return 0;
}

int user_cache_ok_add(const char* domain, const char* user, const char* pass, const char* result) {
  return user_cache_ok_add_at(domain, user, pass, result, time(nullptr));
}

int user_cache_ok_add_at(const char* domain, const char* user, const char* pass,
                         const char* result, time_t now) {
  if (nocache()) return 0;
  Ucache c;
  c.domain = domain != nullptr ? domain : "";
  c.user = user != nullptr ? user : "";
  if (pass != nullptr) c.pass = pass;
  c.result = result != nullptr ? result : "";
  c.stored = now;
  MutexHold hold(MUTEX_PASSWORD);
  int at = write_index;
  ulist[at] = std::move(c);
  write_index = (write_index + 1) % kUcacheSlots;
  // One entry per user name, whatever its domain.
  for (int i = 0; i < kUcacheSlots; i++)
    if (i != at && ulist[i] && ulist[i]->user == ulist[at]->user) ulist[i].reset();
  return 1;
}

int user_cache_clear() {
  MutexHold hold(MUTEX_PASSWORD);
  for (auto& slot : ulist) slot.reset();
  return 1;
}

int user_cache_count() {
  MutexHold hold(MUTEX_PASSWORD);
  int n = 0;
  for (const auto& slot : ulist) n += slot ? 1 : 0;
  return n;
}

}  // namespace korv
