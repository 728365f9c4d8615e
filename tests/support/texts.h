// Small helpers many tests share: a password hash as the users file keeps it,
// a whole file read into a string, a local time from its parts.
#pragma once

#include <ctime>
#include <string>

namespace korv::test {

// A SHA-512 crypt hash of `pass` with a fresh salt ("" if none can be made).
std::string hash_of(const char* pass);
// The bytes of `path` ("" when it cannot be read).
std::string slurp(const std::string& path);
// The time of a local date and time (the zone's daylight rule applied).
time_t local_time(int year, int mon, int day, int h, int m, int s);

}  // namespace korv::test
