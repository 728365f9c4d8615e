// The byte work of transfers, as pure code: ASCII line-end conversion both
// ways (LF to CR LF going out, CR LF to LF coming in, carried across buffer
// splits) and the three-byte header of block mode.
#pragma once

#include <cstddef>

namespace korv {

inline constexpr int kBlockMax = 65535;          // bytes one block header can count
inline constexpr int kBlockInMax = 66000;        // an incoming header counting more ends the upload
inline constexpr unsigned char kBlockEof = 0x40;  // descriptor bit: the last block of the file

// Every LF of `in` gets a CR in front, also one that already follows a CR.
// `out` holds 2 * len bytes. Returns the bytes written to `out`.
size_t cvt_lf_crlf(const char* in, size_t len, char* out);

// CR LF to LF for an upload that arrives in pieces. A CR at the end of one
// piece is held until the next piece shows whether an LF follows; a CR not
// followed by LF is kept.
class CrlfToLf {
 public:
  // Converts `len` bytes of `in` into `out` (room for len + 1 bytes); returns
  // the bytes written. `in` and `out` may be the same buffer only when no CR
  // is held from the piece before.
  size_t run(const char* in, size_t len, char* out);
  // The byte held at the end of the stream, if any, into `out`; returns 0 or 1.
  size_t finish(char* out);
  bool holding() const { return held_cr_; }

 private:
  bool held_cr_ = false;
};

// Writes the header of a block of `len` bytes (at most kBlockMax) into h[3].
void block_header(unsigned char* h, int len, bool eof);
// The byte count of a received header.
int block_header_len(const unsigned char* h);

}  // namespace korv
