// Recent password failures: forty names, newest first, each with the time of
// its last failure and a count; the oldest insertion leaves first.
#include "server/auth/passfail.h"

#include <array>
#include <cstring>
#include <string>

#include "common/emsg.h"
#include "common/mutex.h"

namespace korv {
namespace {

struct Entry {
  bool used = false;
  std::string name;  // pass_list
  time_t time = 0;   // pass_time
  int n = 0;         // pass_n
};

std::array<Entry, kPassFailSlots> entries;  // index 0 is the newest

}  // namespace

int pass_fail_recent(const char* s) { return pass_fail_recent_at(s, time(nullptr)); }

int pass_fail_recent_at(const char* s, time_t now) {
  if (s == nullptr || strcmp(s, "127.0.0.1") == 0) return 0;
  MutexHold hold(MUTEX_RECENT);
  for (Entry& e : entries) {
    if (!e.used || e.name != s) continue;
    if (now - e.time < kPassFailRecentTime) {
      imsg("Pass fail recent (%.100s) %d/%d\n", s, e.n, kPassFailRecentMax);
      return e.n >= kPassFailRecentMax ? 1 : 0;
    }
    e.n = 0;  // old enough: the count starts again
  }
  return 0;
}

int pass_fail_add(const char* s) { return pass_fail_add_at(s, time(nullptr)); }

int pass_fail_add_at(const char* s, time_t now) {
  if (s == nullptr) s = "";
  MutexHold hold(MUTEX_RECENT);
  imsg("Pass fail add (%.100s)\n", s);
  for (Entry& e : entries) {
    if (!e.used || e.name != s) continue;
    e.time = now;
    e.n++;
    imsg("Pass fail add (%.100s) %d so far\n", s, e.n);
    return 1;
  }
  for (int i = kPassFailSlots - 1; i > 0; i--) entries[i] = std::move(entries[i - 1]);
  entries[0] = Entry{true, s, now, 1};
  return 1;
}

int pass_fail_try(const char* s) { return pass_fail_try_at(s, time(nullptr)); }

int pass_fail_try_at(const char* s, time_t now) {
  if (s == nullptr) s = "";
  MutexHold hold(MUTEX_RECENT);
  if (pass_fail_recent_at(s, now)) return 1;
  pass_fail_add_at(s, now);
  return 0;
}

int pass_fail_undo(const char* s) {
  if (s == nullptr) s = "";
  MutexHold hold(MUTEX_RECENT);
  for (Entry& e : entries) {
    if (e.used && e.name == s && e.n > 0) {
      e.n--;
      break;
    }
  }
  return 1;
}

int pass_fail_free() {
  MutexHold hold(MUTEX_RECENT);
  entries.fill(Entry{});
  return 1;
}

}  // namespace korv
