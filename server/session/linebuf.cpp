// The control line buffer: growth, framing and the ABOR scan.
#include "server/session/linebuf.h"

#include <cstring>
#include <utility>

#include "common/emsg.h"

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
  // A line longer than the buffer: everything not yet run is thrown away, and
  // so is the rest of that line when its end comes.
  drop_unread();
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
      int len = lf - 1 - inupto;
      int whole = toolong == 0 && len <= kCmdLineMax;
      if (whole) {
        ftp_strip_null(out, base + inupto, len);
      } else {
        out.clear();
      }
      inupto = lf + 1;
      inscan = inupto;
      toolong = 0;
      return whole ? 1 : 2;
    }
    from = lf + 1;
  }
  // No line end yet. A line already too long is thrown away now rather than
  // kept to its end.
  if (inlen - inupto > kCmdLineMax + 1) drop_unread();
  inscan = inlen;
  return 0;
}

void LINEBUF::drop_unread() {
  const char* base = inbf.get();
  bool ended = inlen == inupto || (inlen - inupto >= 2 && base[inlen - 2] == '\r' && base[inlen - 1] == '\n');
  // A final CR stays, since it may begin the line end.
  int keep = !ended && base[inlen - 1] == '\r' ? 1 : 0;
  inbf[0] = '\r';
  inlen = keep;
  inupto = inscan = 0;
  inbf[inlen] = 0;
  toolong = ended ? 0 : 1;
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

}  // namespace korv
