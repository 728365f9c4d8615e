// One FTP session on its pooled thread: admission (total users, domain by
// local address, deny list, connections per address), the greeting, and the
// loop that reads the control channel and runs each complete line.
#pragma once

namespace korv {

struct LINK;


inline constexpr int kAdmitLimitMinutes = 5;    // idle limit until the greeting is out
inline constexpr int kIdleDefaultMinutes = 10;  // when the class sets no limit_time
inline constexpr int kReadWaitMs = 1000;        // one wait of the session loop
inline constexpr int kRefuseWaitMs = 10;        // a refused client gets this long to read the reply
inline constexpr int kPerIpTextMax = 998;       // the per-address refusal text is cut here

// Runs one FTP session on the calling thread until it ends. 1, or 0 when the
// session had no channel. The thread's wrapper frees the record.
int ftp_main(LINK* l);

// 1 when the FTP sessions in progress have reached global_total_users;
// *limit is the limit.
int get_exceed_users(int* limit);

}  // namespace korv
