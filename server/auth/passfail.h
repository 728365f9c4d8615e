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
// The check and the record in one step, for an attempt about to be made: 1
// if `s` has failed too often lately (nothing recorded), else 0 with a
// failure already counted, so that parallel attempts see each other.
// pass_fail_undo takes the count back when the attempt did not fail.
int pass_fail_try(const char* s);
int pass_fail_try_at(const char* s, time_t now);
int pass_fail_undo(const char* s);
// Forgets all. Returns 1.
int pass_fail_free();

}  // namespace korv
