// Speed limit texts and the pacing of downloads and uploads.
#include "server/ftp/speed.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace korv {

int speed_bytes(const char* text) {
  if (!text) return 0;
  int n = std::atoi(text);
  if (std::strstr(text, "MB")) return n << 20;
  if (std::strstr(text, "K bytes") || std::strstr(text, "k bytes")) return n << 10;
  if (std::strlen(text) <= 4) return n << 10;
  return n;
}

SPEEDDOWN::SPEEDDOWN(int limit_bytes, double start_time)
    : limit(limit_bytes > 0 ? limit_bytes : 0),
      period(limit_bytes > kSpeedFastLimit ? kSpeedPeriodFast : kSpeedPeriod),
      start(start_time) {}

int SPEEDDOWN::block(int unlimited_block) const {
  if (limit <= 0) return unlimited_block;
  int share = limit / period;
  int b = share > 0 && share < kXferBlock ? share : kXferBlock;
  return b;
}

int SPEEDDOWN::wait_ms(long long tot, double now) const {
  if (limit <= 0) return 0;
  const int step = 1000 / period;
  double elapsed = now - start;
  if (elapsed <= 0) return tot >= limit ? step : 0;
  if (static_cast<double>(tot) / elapsed <= limit) return 0;
  // Ahead of the limit: wait until the average falls back to it, one step at most.
  double due = static_cast<double>(tot) / limit - elapsed;
  int ms = static_cast<int>(std::ceil(due * 1000));
  if (ms < 1) ms = 1;
  return ms < step ? ms : step;
}

void SPEEDUP::add(long long bytes, double now) {
  long long s = static_cast<long long>(now);
  if (s != second) {
    second = s;
    sent = 0;
  }
  sent += bytes;
}

int SPEEDUP::wait_ms(double now) {
  if (limit <= 0) return 0;
  long long s = static_cast<long long>(now);
  if (s != second) {
    second = s;
    sent = 0;
    return 0;
  }
  if (sent <= limit) return 0;
  int ms = static_cast<int>(std::ceil((static_cast<double>(s + 1) - now) * 1000));
  return ms < 1 ? 1 : ms;
}

}  // namespace korv
