// The anonymous login throttle: the table of watched addresses, the decision
// for one login, the incremental sweep of freed records and the status table.
#include "common/hammer.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include "base/fmt.h"
#include "common/mutex.h"

namespace korv {
namespace {

constexpr int kDefaultPeriod = 600;
constexpr int kDefaultAllowed = 200;
constexpr int kDefaultBlock = 240;
constexpr int kSweepSteps = 4;     // records looked at per decision
constexpr int kListedAbove = 10;   // the status table shows records above this count

std::array<AnonLoginRecord, kHammerRecords> records;
int record_count = 0;  // anon_login_record_count
int check_for_removal = 0;
int total_hammering_times = 0;
int ten_mins = kDefaultPeriod;
int anon_allowable = kDefaultAllowed;
int block_time = kDefaultBlock;

// Moves the last record into freed places, a few per call.
void check_removal() {
  for (int i = 0; i < kSweepSteps && record_count > 0; i++) {
    check_for_removal = (check_for_removal + 1) % record_count;
    if (records[check_for_removal].IP == 0) {
      records[check_for_removal] = records[record_count - 1];
      records[record_count - 1] = AnonLoginRecord{};
      record_count--;
    }
  }
}

}  // namespace

void anon_hammering_set_default_values(int ten_mins_time_allow, int max_number_anon_allowed,
                                       int block_time_secs) {
  MutexHold hold(MUTEX_M_ANON_HAMMER);
  ten_mins = ten_mins_time_allow != 0 ? ten_mins_time_allow : kDefaultPeriod;
  anon_allowable = max_number_anon_allowed != 0 ? max_number_anon_allowed : kDefaultAllowed;
  block_time = block_time_secs != 0 ? block_time_secs : kDefaultBlock;
}

int anon_login_from_IP_str(const char* IP) { return anon_login_from_IP_int(IP_int_from_string(IP)); }

int anon_login_from_IP_int(unsigned int IP) {
  MutexHold hold(MUTEX_M_ANON_HAMMER);
  int ok = anon_login_from_IP_int_do_it(IP, time(nullptr));
  if (!ok) total_hammering_times++;
  return ok;
}

int anon_login_from_IP_int_do_it(unsigned int IP, time_t now) {
  check_removal();
  if (IP == 0) return 1;  // 0 marks a free record: an unreadable address is not counted
  for (int i = 0; i < record_count; i++) {
    AnonLoginRecord& r = records[i];
    if (r.IP != IP) {
      if (r.last - r.first > 2 * static_cast<time_t>(ten_mins)) r.IP = 0;
      continue;
    }
    r.count++;
    if (r.hammer_time != 0) {
      time_t ends = r.hammer_time + block_time;
      if (ends > now) {
        r.bans++;
        return 0;
      }
      if (ends < now) {  // the block is over: forget the address
        r.IP = 0;
        return 1;
      }
    }
    if (r.last + ten_mins < now || r.first + ten_mins < now) {  // a new period
      r.count = 1;
      r.first = r.last = now;
      return 1;
    }
    if (r.count <= anon_allowable) return 1;
    if (r.last - r.first >= ten_mins) r.count -= anon_allowable;
    r.last = now;
    r.bans++;
    if (r.hammer_time == 0) r.hammer_time = now;
    return 0;
  }
  if (record_count >= kHammerRecords) return 1;  // full: allowed, not counted
  AnonLoginRecord& r = records[record_count++];
  r = AnonLoginRecord{};
  r.IP = IP;
  r.count = 1;
  r.first = r.last = now;
  return 1;
}

unsigned int IP_int_from_string(const char* IP) {
  if (IP == nullptr) return 0;
  int dots = 0;
  for (const char* p = IP; *p != 0; p++)
    if (*p == '.') dots++;
  // The first part always ends up as the top byte: it is shifted by what the
  // missing parts leave free, and each part after it shifts in by 8.
  int pre = dots >= 3 ? 0 : 8 * (3 - dots);
  const char* p = IP;
  unsigned int n = static_cast<unsigned int>(strtoul(p, nullptr, 10)) << pre;
  for (int i = 0; i < 3 && (p = strchr(p, '.')) != nullptr; i++) {
    p++;
    n = (n << 8) | (static_cast<unsigned int>(strtoul(p, nullptr, 10)) & 0xFF);
  }
  return n;
}

std::string int_to_IP(unsigned int IP) {
  return strfmt("%d.%d.%d.%d", (IP >> 24) & 0xFF, (IP >> 16) & 0xFF, (IP >> 8) & 0xFF, IP & 0xFF);
}

void hammering_information(std::string& bf) { hammering_information_at(bf, time(nullptr)); }

void hammering_information_at(std::string& bf, time_t now) {
  MutexHold hold(MUTEX_M_ANON_HAMMER);
  bf = strfmt("    %15s    %7s    %7s    %7s    %7s  \n", "IP Address", "Logins", "Bans",
              "Seconds", "Blocked");
  int listed = 0;
  for (int i = 0; i < record_count; i++) {
    AnonLoginRecord& r = records[i];
    if (r.IP == 0) continue;
    bool block_over = r.hammer_time != 0 && r.hammer_time + block_time < now;
    if (r.first + ten_mins < now || block_over) {
      r.IP = 0;
      continue;
    }
    if (r.count <= kListedAbove) continue;
    long blocked = r.hammer_time != 0 ? static_cast<long>(r.hammer_time + block_time - now) : 0;
    strfmt_append(bf, "    %15s    % 7d    % 7d    % 7ld    % 7ld  \n", int_to_IP(r.IP).c_str(),
                  r.count, r.bans, static_cast<long>(now - r.first), blocked);
    listed++;
  }
  strfmt_append(bf, "    (%d listed) (%d total bans, this uptime)\n", listed,
                total_hammering_times);
}

int anon_login_record_count() {
  MutexHold hold(MUTEX_M_ANON_HAMMER);
  return record_count;
}

int anon_hammering_total() {
  MutexHold hold(MUTEX_M_ANON_HAMMER);
  return total_hammering_times;
}

bool anon_hammering_record(unsigned int IP, AnonLoginRecord* out) {
  MutexHold hold(MUTEX_M_ANON_HAMMER);
  for (int i = 0; i < record_count; i++) {
    if (records[i].IP == IP && IP != 0) {
      if (out != nullptr) *out = records[i];
      return true;
    }
  }
  return false;
}

void anon_hammering_reset() {
  MutexHold hold(MUTEX_M_ANON_HAMMER);
  records.fill(AnonLoginRecord{});
  record_count = 0;
  check_for_removal = 0;
  total_hammering_times = 0;
  ten_mins = kDefaultPeriod;
  anon_allowable = kDefaultAllowed;
  block_time = kDefaultBlock;
}

}  // namespace korv
