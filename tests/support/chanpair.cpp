// Loopback channel pairs for tests.
#include "tests/support/chanpair.h"

#include <gtest/gtest.h>

namespace korv::test {

ChanPtr listen_loopback(unsigned short* port) {
    ChanPtr l = tcp_new_owned();
    if (!tcp_listen(l.get(), "127.0.0.1", 0, 1)) {
        ADD_FAILURE() << "listen: " << tcp_error(l.get());
        return nullptr;
    }
    int p = 0;
    tcp_getport(l.get(), &p);
    *port = static_cast<unsigned short>(p);
    return l;
}

bool make_chan_pair(ChanPtr& client, ChanPtr& server) {
    unsigned short port = 0;
    ChanPtr l = listen_loopback(&port);
    if (!l) return false;
    client = tcp_new_owned();
    server = tcp_new_owned();
    if (!tcp_open(client.get(), "127.0.0.1", port)) {
        ADD_FAILURE() << "open: " << tcp_error(client.get());
        return false;
    }
    if (!tcp_accept_noblock(l.get(), server.get(), 5000)) {
        ADD_FAILURE() << "accept: " << tcp_error(server.get());
        return false;
    }
    return true;
}

}  // namespace korv::test
