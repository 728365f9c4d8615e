// The session's reads of the control channel: the idle limit checked around
// each read, the run of every complete line, and the abort poll.
#include "server/ftp/ftpio.h"

#include <cstring>
#include <ctime>

#include "common/emsg.h"
#include "net/tcp.h"
#include "server/ftp/cmd.h"
#include "server/session/link.h"

namespace korv {

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
  int got;
  while (!ll->closing && (got = ll->w.next_line(line)) != 0) {
    if (got == 2) {
      cmd_write(ll, "500 Line too long\r\n");
    } else {
      cmd_do(ll, line.c_str());
    }
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
