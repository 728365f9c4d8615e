// The text of directory listings, free of sessions and sockets: one entry's
// line in the Unix and Windows layouts, the dates, modes and owner names in
// them, the relative names against a prefix, alias entries, and the option
// words of LIST and NLST.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "base/dirscan.h"

namespace korv {

inline constexpr size_t kListNameMax = 200;  // a name, or "name -> target", is cut here
inline constexpr int kListFieldArg = 300;    // "%.300s" of the date and the name in a Unix line
inline constexpr size_t kListCopyMax = 999;  // names are copied with this bound
inline constexpr int kListOwnerPad = 8;      // owner and group are padded to this width

// Ten characters: "l", "d" or "-", then rwx for owner, group and others.
std::string unix_mode_show(int mode, int isdir, int islink);
// The name of a user or group id, or the number when there is none. Return
// `out`, unpadded. Each thread remembers its last answer for a few seconds.
std::string& unix_uid_user(int uid, std::string& out);
std::string& unix_gid_group(int gid, std::string& out);

// A file's date in local time: "Mon dd hh:mm" when it is of the current
// calendar year (the hour padded with a blank), else "Mon dd  yyyy";
// "Bad Time    " when the time cannot be converted. `now` decides the year.
std::string& lib_file_date(std::string& bf, time_t t, time_t now);
std::string& lib_file_date(std::string& bf, time_t t);  // against the clock

// The Unix line "mode links owner group size date name\r\n"; a link shows
// "name -> target", its target relative to `prefix` where it lies below it.
std::string& showunix_on_unix(const WILD_DATA* d, long long filesize, std::string& tmp,
                              std::string_view xname, std::string_view prefix, time_t now);
// The Windows line "mm-dd-yy  hh:mmAM <DIR>-or-size name\r\n".
std::string& showwindows_on_windows(const WILD_DATA* d, long long filesize, std::string& tmp,
                                    std::string_view xname, std::string_view prefix, time_t now);

// One entry's line: its name relative to `prefix` (the last component when
// nothing is left), in the Windows layout when `dirstyle` is set.
std::string& dir_format(int dirstyle, const WILD_DATA* d, long long filesize, std::string& tmp,
                        std::string_view prefix, time_t now);

// Where `b` leaves `a`: walks both ignoring case, "/" and "\" alike. The
// length of `a` when all of it matched, else the position of the last
// separator before the difference, 0 when there was none.
size_t prefix_cmp(std::string_view a, std::string_view b);
// `in` relative to `prefix` (one leading separator dropped), or `in` itself
// when `prefix` is empty or shares no directory with it. Both are taken in
// the native separator form. Returns `out`.
std::string& remove_prefix(std::string_view in, std::string_view prefix, std::string& out);

// Whether `alias` lies below the listed virtual directory `showname`, whose
// first `n` characters it must begin with, at a component boundary.
int alias_matches(std::string_view alias, std::string_view showname, size_t n);
// The level of `alias` just below those `n` characters: "/pub/a/b" under
// "/pub" gives "a". Empty when nothing is left.
std::string alias_next_level(std::string_view alias, size_t n);

// LIST's options: only a first word beginning with "-" is read ("l" sets
// `isfull`, "R" sets `isrec`), then it and the blanks after it are removed.
void strip_options_pre(std::string& out, int* isfull, int* isrec);
// NLST's options: every word beginning with "-" is removed wherever it
// stands, each with the blanks after it, noting the same two letters.
void strip_options(std::string& out, int* isfull, int* isrec);

}  // namespace korv
