// The admin login's inner steps, beside the ones webio.h gives every page:
// the Authorization line, the salted SHA-1 form of old admin.dat files, and
// the clock of the guess back-off (tests set it).
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace korv {

struct WINK;

inline constexpr int kWebAuthTailMax = 200;   // "Basic ..." longer than this is ignored
inline constexpr int kWebAuthDecodeMax = 998; // decoded user:password
inline constexpr int kWebAuthPartMax = 200;   // user and password are each cut here

// Checks one "Authorization:" line: sets l->gotwebauth on the right user and
// password, counts a failure otherwise.
void web_auth(WINK* l, const char* line);
// base64 of SHA1(pass + salt) + salt, where the salt is what follows the
// 20-byte digest in the base64 text `old` (empty when `old` holds none).
std::string raw_create_ssha(std::string_view pass, std::string_view old);
// The file web_check_pass reads: admin.dat in the server's home.
std::string admin_dat_path();
// The clock of the back-off (time(nullptr) unless set; null restores it).
void web_guess_set_clock(time_t (*now)());

}  // namespace korv
