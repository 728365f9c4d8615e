// An FTP control connection for end-to-end tests over the server's own
// channels: any loopback source address, TLS on the control channel (AUTH or
// implicit), and data connections with or without TLS.
#pragma once

#include <string>

#include "net/tcp.h"

namespace korv::test {

class FtpCtl {
public:
    // Connects from `from` (a loopback address) to `to`:`port`.
    bool connect(int port, const char* from = "127.0.0.1", const char* to = "127.0.0.1");
    // Starts TLS as the client on the control channel.
    bool start_tls(std::string& why);
    bool send_line(const std::string& line);
    bool send_raw(const std::string& bytes);
    // One complete reply with its CR LFs (multi-line replies whole); "" at
    // close or after 20 seconds.
    std::string reply();
    std::string cmd(const std::string& line) {
        return send_line(line) ? reply() : std::string();
    }
    Chan* chan() { return c_.get(); }

    // The port of a 227 or 229 reply, or 0.
    static int reply_port(const std::string& reply);
    // A data connection to 127.0.0.1:port from `from` (null when refused).
    static ChanPtr data_connect(int port, const char* from = "127.0.0.1");
    // TLS as the client on a data connection (after the 150 reply).
    static bool tls_data(Chan* data, std::string& why);
    // Everything the peer sends until it closes (20 seconds at most).
    static std::string read_all(Chan* data);

private:
    ChanPtr c_;
};

}  // namespace korv::test
