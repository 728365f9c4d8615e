// Data channels: the commands that prepare one (PORT, EPRT, PASV, EPSV), the
// passive port chooser, and the opening and closing of `l->cdata` around each
// transfer, with TLS on it in the role that SSCN chose.
#pragma once

#include <string>

namespace korv {

struct LINK;

inline constexpr int kPassiveWaitMs = 180000;  // a passive listener waits this long for the client
inline constexpr int kPassiveAcceptMs = 160000;  // the accept after the listener woke
inline constexpr int kDataReasonMax = 998;       // bytes of a failure reason
inline constexpr int kPortHostMax = 25;          // bytes of an address in `to`

// "h1,h2,h3,h4,p1,p2": the address with dots into `to` (25 bytes at most) and
// p1 * 256 + p2 into *port, wrapping at 16 bits, nothing range-checked. 1, or
// 0 when there are fewer than four commas (then `to` stays as it was).
int ftp_decode_port(const char* s, std::string& to, unsigned short* port);
// "<d>proto<d>address<d>port<d>" with any delimiter byte d: 1, or 0 when fewer
// than four tokens come out (the empty one before the first delimiter counts).
int ftp_decode_eport(const char* inx, std::string& to, unsigned short* port, int* proto);
// "%.20s,%d,%d" of address, port / 256 and port % 256, dots turned to commas.
std::string ftp_portstr(const char* address, int port);

int cmd_port(LINK* l, char** p, int np, const char* orig);
int cmd_eprt(LINK* l, char** p, int np, const char* orig);
int cmd_pasv(LINK* l, char** p, int np, const char* orig);
int cmd_epsv(LINK* l, char** p, int np, const char* orig);

// Opens the session's passive listener on the next port of the class's range
// (round robin over the process). 1 with *rport set, or 0 after the 500 reply.
int cmd_do_pasv(LINK* l, unsigned short* rport);

// Makes `l->cdata` ready for bytes: accepts the client on the passive listener
// (from the control connection's address only, unless the class allows
// ftp_proxy) or connects to the PORT address, sends "150 Opening ..." naming
// `filename`, then starts TLS when data channels are protected. 1, or 0 with
// `reason` set; the caller replies "425 Can't build data connection: ...".
// Every failure but the TLS one has already ended the data sockets.
int ftp_open_datachan(LINK* l, std::string& reason, const char* filename);
// Closes the data channel (lingering up to 5 seconds) and the listener, and
// leaves passive mode. Returns 1.
int ftp_end_datachan(LINK* l);

// The last passive port handed out, shared by every session (tests reset it).
int datachan_last_used();
void datachan_set_last_used(int port);

}  // namespace korv
