// The daily transfer counts held in memory: per user a rolling 24 hours from
// the user's first transfer (dailyquota), per client address the calendar
// day (limit_mb), the latter in units of 100 bytes.
#pragma once

#include <ctime>

namespace korv {

inline constexpr int kUserTableSize = 12345;  // buckets of the per-user table
inline constexpr int kDayBuckets = 500;       // buckets of the per-address table
inline constexpr int kDayIpMax = 20;          // an address is kept cut to this
inline constexpr int kDayUnit = 100;          // bytes a per-address count stands for
inline constexpr int kUserDaySeconds = 86400;
inline constexpr int kSweepSkipMax = 100;     // empty buckets a sweep steps over

// Adds `amount` bytes to the user's count (making the entry); the new total.
long long add_to_user_daily_quota(const char* user, long long amount);
// The user's count, 0 without an entry.
long long get_user_daily_quota(const char* user);
// Frees the whole table (shutdown).
void remove_user_daily_quota();
// One step of the idle sweep (at most once a minute): the next non-empty
// bucket loses its entries older than a day.
void per_username_settings_idle(time_t now);
// The bucket of `user` in a table of `size`.
int hash_user(const char* user, int size);

// Adds `bytes` / 100 to the address's count (a call with 0 only reads) and
// puts the count, in units of 100 bytes, in *total. Returns 1.
int day_add(const char* ipnum, long long bytes, long long* total);
// Frees every address (the day changed, or shutdown).
void day_free();

}  // namespace korv
