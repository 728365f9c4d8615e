// The per-user disk quota: the limit set at login, the count of bytes used
// under the home, kept between sessions in ".korvane_quota" in the home and
// rebuilt by walking the tree when that file is missing or stale, and the
// counters that file calls move during a session.
#pragma once

#include <string>

#include "server/session/link.h"

namespace korv {

inline constexpr const char* kQuotaFileName = ".korvane_quota";
inline constexpr int kQuotaFileMaxAge = 180;  // seconds a stored count is trusted
inline constexpr int kQuotaDepthMax = 91;     // a walk stops at this depth
inline constexpr long long kQuotaDirBytes = 4096;  // what each directory entry counts
inline constexpr size_t kQuotaLineMax = 999;  // the stored line is read up to this

// The real path of the home (empty without a user token). 1, or 0 when the
// home does not translate.
int cmd_quota_root(Link* l, std::string& bf);
// The real path of the quota file ("NOBODY.korvane_quota" without a token).
int cmd_quota_file(Link* l, std::string& bf);
// Sets quota_was from the file, consuming it, or from a rebuild when the
// file is missing or older than kQuotaFileMaxAge. 1, or 0 when the file
// exists but cannot be read.
int cmd_quota_read(Link* l);
// At the end of a session: the count re-read plus this session's change,
// written back to the file. 1, or 0 when nothing was written.
int cmd_quota_write(Link* l);
// quota_was from a walk of the home, quota_change back to 0.
void cmd_quota_rebuild(Link* l);
// The bytes under `path` ("." and ".." and every directory count 4096,
// links nothing). `*depth` rises on entry; at kQuotaDepthMax the walk
// returns 0 and leaves it raised, so later siblings are cut off too.
long long cmd_quota_deeper(Link* l, const std::string& path, int* depth);

// The session's quota as the file calls see it: with no limit (`quota` 0)
// `message` is "unlimited" and the answer 0; otherwise `message` is
// "<used>k/<limit>k" and the answer 1 when the use is above the limit.
int vquota_exceeded(Link* l, std::string& message);
// Adds `q` (negative to credit) to the session's change; returns the use.
long long vquota_add(Link* l, long long q);

}  // namespace korv
