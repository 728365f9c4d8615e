// Loopback channel pairs for tests: a listener on 127.0.0.1 with a port the kernel picks, and a
// connected client and server end.
#pragma once

#include "net/tcp.h"

namespace korv::test {

// A listening channel on 127.0.0.1; *port receives its port.
ChanPtr listen_loopback(unsigned short* port);

// A connected pair: `client` made with tcp_open, `server` with tcp_accept. False on failure.
bool make_chan_pair(ChanPtr& client, ChanPtr& server);

}  // namespace korv::test
