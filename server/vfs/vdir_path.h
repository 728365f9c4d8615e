// Pure text work on virtual paths: separator handling in the Unix and DOS
// forms, simplification against the current directory (the gate against
// climbing out of the virtual tree), and the small path helpers. No disk, no
// settings, no session beyond the `dirstyle` flag.
#pragma once

#include <string>
#include <string_view>

namespace korv {

struct LINK;

inline constexpr size_t kVdirNameCopyMax = 999;  // longest absolute name
inline constexpr size_t kVdirJoinCopyMax = 998;  // longest "<path>/<name>"
inline constexpr int kVdirMaxParts = 100;        // most components
inline constexpr size_t kVdirJoinStop = 220;     // no component is started at or past this length
inline constexpr size_t kVdirPathMax = 398;      // paths of CWD, RNFR, RNTO and MLST

// With 1 a backslash is an ordinary file-name character; with 0 (the default)
// it separates directories like a slash. Set once at start-up from
// global_only_unix.
void vdir_only_unix_slash(int x);
int vdir_get_only_unix_slash();

// Each helper works in place and returns its argument.
// Backslashes become slashes (unless only_unix_slash); runs are kept.
std::string& vdir_fixslash(std::string& in);
// Each run of separators becomes one slash.
std::string& vdir_fixslash_show_linux(std::string& in);
std::string& vdir_fixslash_linux(std::string& in);
// This build's native form: the same as vdir_fixslash_show_linux.
std::string& vdir_fixslash_os(std::string& in);
// Separators in front of a drive form ("/c:") dropped; two leading separators
// keep one backslash in front (a network name); every other run of
// separators becomes one backslash.
std::string& vdir_fixslash_show_dos(std::string& in);
// The DOS form when the session shows Windows-style paths, else the Unix form.
std::string& vdir_fixslash_show(const LINK* l, std::string& in);

// `name` against the directory `path` ("/" or "\" in front of `name` makes it
// absolute): "." dropped, ".." climbs, a climb above the root refused, three
// dots beside a slash refused, and a path past one of the bounds above
// refused rather than cut. 1 with the simplified path in `result` ("/" for
// the root, never a trailing slash), or 0 with `result` empty.
// Client text is a C string: each input ends at its first NUL byte.
int vdir_simplify(std::string& result, std::string_view path, std::string_view name);

// A final "/" goes only when another "/" comes before it: "/a/" gives "/a",
// "/" and "a/" stay. Returns `s`.
std::string& vdir_remove_trailing(std::string& s);

// The virtual path under `to` of the real path `in` under `from` (the caller
// guarantees the prefix). `in` equal in length to `from` gives "/"; a shorter
// `in` gives 0 with `out` a copy of `in`.
int vdir_xlate(std::string& out, std::string_view in, std::string_view from, std::string_view to);

// 1 for a file name that cannot name anything (empty or null).
int vdir_invalid(const char* fname);

}  // namespace korv
