// Speed limits of transfers as pure code: the reading of a limit setting, the
// block size under a download limit and the pacing of downloads (the average
// since the start) and uploads (a budget per second).
#pragma once

namespace korv {

inline constexpr int kXferBlock = 65535;        // a download's read under a limit
inline constexpr int kSpeedPeriod = 5;          // blocks a second under a limit...
inline constexpr int kSpeedPeriodFast = 20;     // ...and above kSpeedFastLimit
inline constexpr int kSpeedFastLimit = 1000000;

// Bytes a second of a limit text: atoi of it, shifted by 20 bits when the
// text holds "MB", by 10 when it holds "K bytes" or "k bytes" or is four
// characters or shorter; else bytes. "100" is 100 KB, "12345" is 12345 bytes.
int speed_bytes(const char* text);

// Download pacing. The average rate since the start is what is held.
struct SPEEDDOWN {
  int limit = 0;         // bytes a second; 0 for none
  int period = kSpeedPeriod;
  double start = 0;      // seconds (any clock) at the start of the transfer

  SPEEDDOWN(int limit_bytes, double start_time);
  // The read size: kXferBlock, or a period's share of the limit when smaller.
  // `unlimited_block` is the size without a limit.
  int block(int unlimited_block) const;
  // Milliseconds to wait after `tot` bytes at time `now` before the next
  // block; 0 when the transfer is not ahead of the limit. Never more than one
  // period's step (1000 / period).
  int wait_ms(long long tot, double now) const;
};
using SpeedDown = SPEEDDOWN;

// Upload pacing: at most `limit` bytes are taken in each whole second.
struct SPEEDUP {
  int limit = 0;
  long long second = 0;  // the whole second being counted
  long long sent = 0;    // bytes taken in it

  // Counts bytes taken at `now` (seconds).
  void add(long long bytes, double now);
  // Milliseconds to wait at `now` before reading more: 0, or the rest of the
  // second when its budget is spent. A new second clears the count.
  int wait_ms(double now);
};
using SpeedUp = SPEEDUP;

}  // namespace korv
