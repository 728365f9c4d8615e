// Recent password failures by name (the client's address): after nine
// failures within 300 seconds a name stops reaching the password check.
#pragma once

#include <ctime>

namespace korv {

inline constexpr int kPassFailSlots = 40;
inline constexpr int kPassFailRecentMax = 9;     // recentmax
inline constexpr int kPassFailRecentTime = 300;  // recenttime, seconds

// 1 if `s` has failed too often lately. "127.0.0.1" is never limited.
int pass_fail_recent(const char* s);
int pass_fail_recent_at(const char* s, time_t now);
// Records a failure of `s`. Returns 1.
int pass_fail_add(const char* s);
int pass_fail_add_at(const char* s, time_t now);
// Forgets all. Returns 1.
int pass_fail_free();

}  // namespace korv
