// Hashed directory names: appends to a path a short hash of a user name, so
// that many homes spread over small directories.
#pragma once

#include <string>

namespace korv {

inline constexpr int kHashNameMax = 498;  // names are cut to this many bytes
inline constexpr int kHashMaxLevel = 6;

// Appends to `path` a separator (if missing), the hash of `user` at `level`
// (0..6) and, with `adduser`, a separator and the encoded name. `invalid`
// lists the characters a file name may not hold ("/" if null or empty): the
// hash is taken over the name without them (and without '.'), in lower case;
// the encoded name writes each of them, and each comma, as ",xx" in hex.
// `out_name`, if given, gets the encoded name. 1, or 0 with `path` emptied
// when a part is empty or the level is out of range.
int hash_new(std::string& path, const char* user, const char* invalid, int level, int adduser,
             std::string* out_name);

// The encoded form of `user` described above, cut to kHashNameMax.
std::string encode_invalid(const char* user, const char* invalid);

}  // namespace korv
