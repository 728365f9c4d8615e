// Users' home directories: the FTP home of a login (from the authentication
// source through the ftphome_map, or from the class's user_home and its
// hashing pattern), and the session's starting virtual directory.
#pragma once

#include <string>

#include "server/session/link.h"

namespace korv {

inline constexpr int kHashPatternMax = 98;   // pattern characters kept
inline constexpr int kHashPathMax = 200;     // "%.200s/%.80s" of an unhashed home
inline constexpr int kHashUserMax = 80;
inline constexpr int kHashTailUserMax = 100; // the user name after a hashed path
inline constexpr int kMailboxPathMax = 200;  // sm_userpath's result is cut here
inline constexpr int kHomeBufMax = 998;      // a virtual home is copied with this bound
inline constexpr const char* kVelmarPattern = "$velmar$";
inline constexpr const char* kVelmarInvalid = "\\/:*?\"<>| #!";
inline constexpr int kVelmarLevel = 5;

// With 1 a backslash is an ordinary character in a home path; with 0 (the
// default) it separates directories like a slash. Set at start-up from
// global_only_unix.
void home_only_unix_slash(int x);

// The home of `user` in session `l`: the token's ftphome through the
// ftphome_map, or the class's user_home hashed by user_home_hashing (and lower
// case with force_lower_home). Returns `correct_ftpuser_home`.
std::string& link_user_ftphome(Link* l, const char* user, std::string& correct_ftpuser_home);
// The class-driven home: `homepathsetting` (or "/home") hashed by `hash_fmt`
// with `user`, lower-cased first if `do_force_lower`. A non-null `ftphome`
// replaces the result. Returns the output.
std::string& make_link_user_ftphome(std::string& correct_ftpuser_home, const char* user,
                                    const char* hash_fmt, const char* homepathsetting,
                                    int do_force_lower, const char* ftphome);
// The first ftphome_map value whose `find` begins `ftphome` replaces that
// part by its `map`; otherwise `ftphome` as it is. Returns `output`.
std::string& do_ftphome_remapping(INILINK* l, std::string& output, const char* ftphome);
// "<path>/<hash>/<user>" by the pattern's "f", "o" and "/" steps, "$velmar$"
// for the mailbox hash, or "<path>/<user>" for an empty pattern; doubled
// slashes squeezed. Returns `output`.
std::string& my_username_hash(const char* hashing_pattern, std::string& output, const char* path,
                              const char* user);
// The pattern's "f", "o" and "/" characters (98 at most), or "zz" if none.
std::string& get_hashing_string(std::string& hashing_buffer, const char* hashing_pattern);
// The mailbox-style home: `mailbox_path` with a level-5 hash of the lower-case
// `user` and the encoded name, then "/" and `fname` unless it is ".", cut to
// 200. 1, or 0 with `tmp` emptied when an argument is missing or the hash
// cannot be made.
int sm_userpath(std::string& tmp, const char* mailbox_path, const char* user, const char* fname);

// The raw `path` of the class's first `dir` rule, or "/".
std::string& vdir_get_home_dir_path_rule(INILINK* l, std::string& output);
// The session's starting virtual directory: the `alias` of the class's first
// `dir` rule with "~" and "$username" expanded, or "/" without a rule.
std::string& vdir_gethome_intobf(Link* l, std::string& bf);

}  // namespace korv
