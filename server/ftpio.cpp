// The FTP control line buffer and the session's reads: framing of command
// lines, the idle limit checked around each read, and the abort poll.
#include "server/ftpio.h"

#include <cstring>
#include <ctime>

#include "common/emsg.h"
#include "net/tcp.h"
#include "server/cmd.h"
#include "server/link.h"

namespace korv {

int LINEBUF::grow() {
  if (inmax >= kInRefuseSize) return 0;
  int want = inbf ? kInGrowSize : kInFirstSize;
  if (want <= inmax) return 1;  // the later sizes are all the same: nothing to do
  auto bigger = std::make_unique<char[]>(static_cast<size_t>(want));
  if (inbf && inlen > 0) memcpy(bigger.get(), inbf.get(), static_cast<size_t>(inlen));
  bigger[inlen] = 0;
  inbf = std::move(bigger);
  inmax = want;
  return 1;
}

int LINEBUF::room(int* dropped) {
  if (dropped != nullptr) *dropped = 0;
  int want = inmax - inlen - 1;
  if (want > 9) return want;
  grow();
  want = inmax - inlen - 2;
  if (want > 9) return want;
  // A line longer than the buffer: everything not yet run is thrown away.
  inlen = inupto = inscan = 0;
  inbf[0] = 0;
  if (dropped != nullptr) *dropped = 1;
  return inmax - 1;
}

void LINEBUF::added(int n) {
  if (n <= 0) return;
  inlen += n;
  inbf[inlen] = 0;
}

int LINEBUF::append(const char* data, int n) {
  int taken = 0;
  while (taken < n) {
    int dropped = 0;
    int want = room(&dropped);
    if (dropped) emsg("Dropping part of long line\n");
    int k = n - taken < want ? n - taken : want;
    memcpy(inbf.get() + inlen, data + taken, static_cast<size_t>(k));
    added(k);
    taken += k;
  }
  return taken;
}

int LINEBUF::next_line(std::string& out) {
  if (!inbf || inupto >= inlen) return 0;
  int from = inscan > inupto ? inscan : inupto;
  const char* base = inbf.get();
  while (from < inlen) {
    const void* hit = memchr(base + from, '\n', static_cast<size_t>(inlen - from));
    if (hit == nullptr) break;
    int lf = static_cast<int>(static_cast<const char*>(hit) - base);
    // A line ends at a line feed preceded by a carriage return of the same
    // line; a bare line feed is an ordinary byte.
    if (lf > inupto && base[lf - 1] == '\r') {
      ftp_strip_null(out, base + inupto, lf - 1 - inupto);
      inupto = lf + 1;
      inscan = inupto;
      return 1;
    }
    from = lf + 1;
  }
  inscan = inlen;
  return 0;
}

void LINEBUF::compact() {
  if (inupto == 0) return;
  int left = inlen - inupto;
  if (left > 0) {
    dmsg("moving +%d len %d\n", inupto, left);
    memmove(inbf.get(), inbf.get() + inupto, static_cast<size_t>(left));
  }
  inscan = inscan > inupto ? inscan - inupto : 0;
  inlen = left;
  inupto = 0;
  inbf[inlen] = 0;
}

int LINEBUF::has_abor() const {
  if (!inbf || inlen - inupto < 4) return 0;
  const char* s = inbf.get() + inupto;
  size_t n = static_cast<size_t>(inlen - inupto);
  return (memmem(s, n, "ABOR", 4) != nullptr || memmem(s, n, "abor", 4) != nullptr) ? 1 : 0;
}

int ftp_strip_null(std::string& dst, const char* src, int len) {
  if (len > kCmdLineMax) len = kCmdLineMax;
  dst.clear();
  for (int i = 0; i < len; i++) {
    if (src[i] != 0) dst.push_back(src[i]);
  }
  return 1;
}

// ---- The session side ------------------------------------------------------

namespace {

// The idle limit: past it the client is told and the session ends.
bool idle_expired(LINK* ll, const char* logformat) {
  time_t now = time(nullptr);
  if (now - ll->idle_time_start <= static_cast<time_t>(ll->idle_time_limit) * 60) return false;
  cmd_write(ll, "421 Timeout (%d minutes): closing control connection.\r\n", ll->idle_time_limit);
  imsg(logformat, ll->idle_time_limit);
  ll->closing = 1;
  return true;
}

}  // namespace

int tcp_readmore(LINK* ll, int msec, int is_ftp) {
  if (!ll->c) return 0;
  LineBuf& w = ll->w;
  int dropped = 0;
  int want = w.room(&dropped);
  if (dropped) emsg("Dropping part of long line\n");
  if (is_ftp && idle_expired(ll, "main: command timeout 421 Timeout (%d minutes): closing control connection.\r\n")) {
    return 0;
  }
  // Between commands the connection is usually empty: a waiting read polls first.
  int r = msec > 0 ? tcp_read_next(ll->c.get(), w.inbf.get() + w.inlen, want, msec)
                   : tcp_read_timed(ll->c.get(), w.inbf.get() + w.inlen, want, msec);
  // Bytes that arrive just after the limit are not used.
  if (is_ftp && idle_expired(ll, "main: timeout2 (%d minutes): closing control connection.\r\n")) return 0;
  if (r > 0) w.added(r);
  if (r == 0) {
    imsg("main: Channel closed normally by remote end (%s)\n", tcp_error(ll->c.get()).c_str());
    return 0;
  }
  if (r == -1 && !tcp_blocking_error(ll->c.get())) {
    imsg("main: Command channel closed, %d %s", r, tcp_error(ll->c.get()).c_str());
    return 0;
  }
  return 1;
}

int tcp_process(LINK* ll) {
  std::string line;
  // Every complete line runs now, in order; a handler may read more into the
  // buffer, so its state is taken afresh for each line.
  while (ll->w.next_line(line)) {
    cmd_do(ll, line.c_str());
    ll->idle_time_start = static_cast<int>(time(nullptr));
  }
  if (ll->w.inbf) ll->w.compact();
  return 1;
}

int cmd_abort(LINK* ll) {
  if (!tcp_readmore(ll, 0, 1)) {
    ll->done_abort = 0;
    return 1;
  }
  if (ll->w.has_abor()) {
    ll->done_abort = 1;
    return 1;
  }
  return 0;
}

}  // namespace korv
