// Per-minute transfer volume in a ring of minutes.
#include "server/session/traffic.h"

#include <array>
#include <cstring>
#include <mutex>

namespace korv {

namespace {

std::mutex mx;
std::array<TRAFFIC_MINUTE, kTrafficMinutes> ring{};

time_t minute_of(time_t t) { return t - t % 60; }

TRAFFIC_MINUTE& slot(time_t minute) { return ring[static_cast<size_t>((minute / 60) % kTrafficMinutes)]; }

}  // namespace

void traffic_add(const char* direction, long long bytes, time_t now) {
    if (direction == nullptr || bytes <= 0) return;
    const time_t m = minute_of(now);
    std::lock_guard<std::mutex> g(mx);
    TRAFFIC_MINUTE& s = slot(m);
    if (s.start != m) s = TRAFFIC_MINUTE{m, 0, 0};  // the slot held an older hour's minute
    (strcmp(direction, "i") == 0 ? s.up : s.down) += bytes;
}

std::vector<TRAFFIC_MINUTE> traffic_series(time_t now) {
    const time_t last = minute_of(now);
    std::vector<TRAFFIC_MINUTE> out;
    out.reserve(kTrafficMinutes);
    std::lock_guard<std::mutex> g(mx);
    for (int i = kTrafficMinutes - 1; i >= 0; --i) {
        const time_t m = last - static_cast<time_t>(i) * 60;
        const TRAFFIC_MINUTE& s = slot(m);
        out.push_back(s.start == m ? s : TRAFFIC_MINUTE{m, 0, 0});
    }
    return out;
}

void traffic_reset() {
    std::lock_guard<std::mutex> g(mx);
    ring.fill(TRAFFIC_MINUTE{});
}

}  // namespace korv
