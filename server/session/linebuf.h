// The control line buffer of a connection: bytes in, command lines out (a
// line ends at CR LF only, NUL bytes are dropped, a line longer than
// kCmdLineMax is discarded whole). Pure code, shared by the session record and
// the FTP command reader.
#pragma once

#include <memory>
#include <string>

namespace korv {

inline constexpr int kCmdLineMax = 999;     // bytes of one command line the dispatcher sees
inline constexpr int kInFirstSize = 1000;   // the buffer's first size
inline constexpr int kInGrowSize = 32000;   // every later size: the longest unended line kept
inline constexpr int kInRefuseSize = 132000;  // growth is refused from this size on

// The line buffer of a connection (the inbf, inlen, inupto and inmax of its
// record). Pure code: bytes in, lines out.
struct LINEBUF {
  std::unique_ptr<char[]> inbf;  // inmax bytes; inbf[inlen] is always 0 once allocated
  int inlen = 0;                 // bytes in the buffer
  int inupto = 0;                // read position: bytes before it are done
  int inmax = 0;                 // size of inbf
  int inscan = 0;                // bytes before it hold no line end after inupto
  int toolong = 0;               // the unended line in the buffer is being discarded

  // Grows the buffer: kInFirstSize at the first call, kInGrowSize at every
  // later one. 0 only at kInRefuseSize or more.
  int grow();
  // Room for a read, made as tcp_readmore does: the free bytes, growing when
  // fewer than 10 are left; when growth gives no room the unparsed content is
  // dropped (and *dropped set). Returns the count that may be read at
  // inbf + inlen.
  int room(int* dropped);
  // Counts `n` bytes just written at inbf + inlen and terminates.
  void added(int n);
  // Appends bytes through room/added; returns the count taken (a test and
  // fuzz helper; the session reads straight into the buffer).
  int append(const char* data, int n);

  // The next complete line from inupto, without its CR LF, through
  // ftp_strip_null into `out`. 1 and inupto moved past the line; 2 (and `out`
  // empty) when the line was longer than kCmdLineMax and has been discarded
  // whole; 0 when no complete line is buffered (an unended line already too
  // long is thrown away then, and its end will give 2).
  int next_line(std::string& out);
  // Throws the unread bytes away; an unended line among them is marked, so
  // that the rest of it goes too when its end comes.
  void drop_unread();
  // Moves the unread bytes to the start of the buffer.
  void compact();
  // 1 if the unread bytes hold "ABOR" or "abor" anywhere.
  int has_abor() const;
  int unread() const { return inlen - inupto; }
};
using LineBuf = LINEBUF;

// Copies a line, dropping NUL bytes, looking at kCmdLineMax bytes of `src`
// at most. Returns 1.
int ftp_strip_null(std::string& dst, const char* src, int len);

}  // namespace korv
