// Daily transfer counts per user (lock 33) and per client address (lock 12).
#include "server/ftp/daily.h"

#include <cstdint>
#include <string>
#include <vector>

#include "base/str.h"
#include "common/mutex.h"

namespace korv {

namespace {

struct USER_INFO {
  std::string username;
  long long quota_used = 0;
  time_t quota_start = 0;
};

struct HASH_TABLE {
  std::vector<std::vector<USER_INFO>> table;  // each bucket newest first
  time_t last_empty_at = 0;
  int sweep = 0;
};
HASH_TABLE base_table;

struct DAYIP {
  std::string ipnum;
  long long nibs = 0;
};
std::vector<std::vector<DAYIP>> dlist;

USER_INFO* find_user(const char* user, bool make) {
  if (base_table.table.empty()) {
    if (!make) return nullptr;
    base_table.table.resize(kUserTableSize);
    base_table.last_empty_at = time(nullptr);
  }
  auto& bucket = base_table.table[static_cast<size_t>(hash_user(user, kUserTableSize))];
  for (auto& u : bucket)
    if (u.username == user) return &u;
  if (!make) return nullptr;
  USER_INFO u;
  u.username = user;
  u.quota_start = time(nullptr);
  bucket.insert(bucket.begin(), std::move(u));
  return &bucket.front();
}

}  // namespace

int hash_user(const char* user, int size) {
  if (size < 1) return 0;
  const uint32_t kMul = 1300493, kMod = 11187503;
  uint32_t h = static_cast<uint32_t>(size) * kMul % kMod;
  uint32_t n = 1;
  for (const char* c = user; *c; c++, n++)
    h = (static_cast<uint32_t>(static_cast<unsigned char>(*c)) + h + n) * kMul % kMod;
  return static_cast<int>(h % static_cast<uint32_t>(size));
}

long long add_to_user_daily_quota(const char* user, long long amount) {
  MutexHold hold(MUTEX_PER_USERNAME_SETTINGS);
  USER_INFO* u = find_user(user ? user : "", true);
  u->quota_used += amount;
  return u->quota_used;
}

long long get_user_daily_quota(const char* user) {
  MutexHold hold(MUTEX_PER_USERNAME_SETTINGS);
  USER_INFO* u = find_user(user ? user : "", false);
  return u ? u->quota_used : 0;
}

void remove_user_daily_quota() {
  MutexHold hold(MUTEX_PER_USERNAME_SETTINGS);
  base_table.table.clear();
  base_table.sweep = 0;
}

void per_username_settings_idle(time_t now) {
  MutexHold hold(MUTEX_PER_USERNAME_SETTINGS);
  if (base_table.table.empty()) return;
  const int size = static_cast<int>(base_table.table.size());
  int i = (base_table.sweep + 1) % size;
  for (int skipped = 0; skipped < kSweepSkipMax && base_table.table[static_cast<size_t>(i)].empty(); skipped++)
    i = (i + 1) % size;
  base_table.sweep = i;
  auto& bucket = base_table.table[static_cast<size_t>(i)];
  std::erase_if(bucket, [now](const USER_INFO& u) { return now - u.quota_start >= kUserDaySeconds; });
}

int day_add(const char* ipnum, long long bytes, long long* total) {
  MutexHold hold(MUTEX_DAYS);
  if (dlist.empty()) dlist.resize(kDayBuckets);
  std::string ip(ipnum ? ipnum : "");
  if (ip.size() > static_cast<size_t>(kDayIpMax)) ip.resize(kDayIpMax);
  auto& bucket = dlist[static_cast<size_t>(lib_str_hash(ip.c_str(), kDayBuckets))];
  DAYIP* d = nullptr;
  for (auto& e : bucket)
    if (e.ipnum == ip) d = &e;
  if (!d) {
    bucket.insert(bucket.begin(), DAYIP{ip, 0});
    d = &bucket.front();
  }
  d->nibs += bytes / kDayUnit;
  if (total) *total = d->nibs;
  return 1;
}

void day_free() {
  MutexHold hold(MUTEX_DAYS);
  dlist.clear();
}

}  // namespace korv
