// ASCII conversion and block headers of transfers.
#include "server/ftp/transfer_ascii.h"

#include <cstring>

namespace korv {

size_t cvt_lf_crlf(const char* in, size_t len, char* out) {
  size_t o = 0;
  const char* p = in;
  const char* end = in + len;
  while (p < end) {
    const void* nl = std::memchr(p, '\n', static_cast<size_t>(end - p));
    size_t run = nl ? static_cast<size_t>(static_cast<const char*>(nl) - p) : static_cast<size_t>(end - p);
    std::memcpy(out + o, p, run);
    o += run;
    p += run;
    if (nl) {
      out[o++] = '\r';
      out[o++] = '\n';
      p++;
    }
  }
  return o;
}

size_t CrlfToLf::run(const char* in, size_t len, char* out) {
  size_t o = 0;
  size_t i = 0;
  if (held_cr_ && len > 0) {
    held_cr_ = false;
    if (in[0] != '\n') out[o++] = '\r';
  }
  for (; i < len; i++) {
    char c = in[i];
    if (c == '\r') {
      if (i + 1 == len) {
        held_cr_ = true;
        break;
      }
      if (in[i + 1] == '\n') continue;
    }
    out[o++] = c;
  }
  return o;
}

size_t CrlfToLf::finish(char* out) {
  if (!held_cr_) return 0;
  held_cr_ = false;
  out[0] = '\r';
  return 1;
}

void block_header(unsigned char* h, int len, bool eof) {
  h[0] = eof ? kBlockEof : 0;
  h[1] = static_cast<unsigned char>((len >> 8) & 0xFF);
  h[2] = static_cast<unsigned char>(len & 0xFF);
}

int block_header_len(const unsigned char* h) { return h[1] * 256 + h[2]; }

}  // namespace korv
