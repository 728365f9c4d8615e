// The server's transfer volume over time: bytes of finished transfers counted
// per minute, downloads and uploads apart, for the last kTrafficMinutes, for
// the graph page. Process-wide and thread-safe.
#pragma once

#include <ctime>
#include <vector>

namespace korv {

inline constexpr int kTrafficMinutes = 60;

struct TRAFFIC_MINUTE {
    time_t start = 0;          // the minute's first second
    long long down = 0;        // bytes sent to clients
    long long up = 0;          // bytes received from clients
};

// Counts a finished transfer of `bytes` ("o" sent, "i" received) at `now`.
void traffic_add(const char* direction, long long bytes, time_t now);
// The last kTrafficMinutes minutes up to `now`, oldest first, one entry per
// minute (empty minutes included).
std::vector<TRAFFIC_MINUTE> traffic_series(time_t now);
void traffic_reset();  // a fresh start, for tests

}  // namespace korv
