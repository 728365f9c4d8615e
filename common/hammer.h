// The anonymous login throttle: counts anonymous logins per IPv4 address in a
// fixed table of 128 and blocks an address that logs in too often.
#pragma once

#include <ctime>
#include <string>

namespace korv {

inline constexpr int kHammerRecords = 128;

// One watched address.
struct ANON_LOGIN_RECORD {
  time_t first = 0;        // start of the counting period
  time_t last = 0;         // last time the period was moved
  time_t hammer_time = 0;  // when the block began; 0 if none
  int count = 0;           // logins counted
  int bans = 0;            // refusals
  unsigned int IP = 0;     // the address; 0 marks a free record
};
using AnonLoginRecord = ANON_LOGIN_RECORD;

// The counting period (default 600 s), the logins allowed in it (200) and the
// length of a block (240 s); 0 takes the default.
void anon_hammering_set_default_values(int ten_mins_time_allow, int max_number_anon_allowed,
                                       int block_time_secs);

// 1 allows this anonymous login, 0 refuses it.
int anon_login_from_IP_str(const char* IP);
int anon_login_from_IP_int(unsigned int IP);
// The decision at the time `now`; the caller holds M_ANON_HAMMER.
int anon_login_from_IP_int_do_it(unsigned int IP, time_t now);

// Dotted form to a number; short forms keep the first part as the top byte
// ("10.1" is 10.0.0.1).
unsigned int IP_int_from_string(const char* IP);
// "%d.%d.%d.%d", top byte first.
std::string int_to_IP(unsigned int IP);

// The status table of addresses with more than 10 logins; frees records whose
// period or block is over.
void hammering_information(std::string& bf);
void hammering_information_at(std::string& bf, time_t now);

// Records in use, and refusals since start.
int anon_login_record_count();
int anon_hammering_total();
// A copy of the record of `IP`; false if none.
bool anon_hammering_record(unsigned int IP, AnonLoginRecord* out);
// Empties the table and the counters, and restores the defaults.
void anon_hammering_reset();

}  // namespace korv
