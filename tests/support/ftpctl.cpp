// The end-to-end FTP control client over the server's own channels.
#include "tests/support/ftpctl.h"

#include <cstdio>
#include <cstring>

#include "net/tls.h"

namespace korv::test {
namespace {

constexpr int kWaitMs = 20000;

}  // namespace

bool FtpCtl::connect(int port, const char* from, const char* to) {
    c_ = tcp_new_owned();
    return tcp_bind(c_.get(), from, 0, 0, 0) && tcp_open(c_.get(), to, static_cast<unsigned short>(port));
}

bool FtpCtl::start_tls(std::string& why) {
    return SSLTcp_StartSSL(c_->tcp.get(), nullptr, 0, why) == 1;
}

bool FtpCtl::send_raw(const std::string& bytes) {
    return tcp_write_timed(c_.get(), bytes.data(), static_cast<int>(bytes.size()), kWaitMs) ==
           static_cast<int>(bytes.size());
}

bool FtpCtl::send_line(const std::string& line) { return send_raw(line + "\r\n"); }

std::string FtpCtl::reply() {
    std::string out;
    std::string code;
    for (;;) {
        if (!tcp_need_read_attention(c_.get(), kWaitMs) && c_->bfbytes == 0) return "";
        char line[1100];
        int n = tcp_readline(c_.get(), line, sizeof line);
        if (n <= 0) return "";
        out += line;
        out += "\r\n";
        size_t len = strlen(line);
        if (code.empty() && len >= 4 && line[3] == '-') code.assign(line, 3);
        if (code.empty()) return out;
        if (len >= 4 && strncmp(line, code.c_str(), 3) == 0 && line[3] == ' ') return out;
    }
}

int FtpCtl::reply_port(const std::string& reply) {
    int h[6] = {};
    if (sscanf(reply.c_str(), "227 Entering Passive Mode (%d,%d,%d,%d,%d,%d).", &h[0], &h[1], &h[2], &h[3],
               &h[4], &h[5]) == 6)
        return h[4] * 256 + h[5];
    int port = 0;
    if (sscanf(reply.c_str(), "229 Entering Extended Passive Mode (|||%d|)", &port) == 1) return port;
    return 0;
}

ChanPtr FtpCtl::data_connect(int port, const char* from) {
    ChanPtr c = tcp_new_owned();
    if (!tcp_bind(c.get(), from, 0, 0, 0) || !tcp_open(c.get(), "127.0.0.1", static_cast<unsigned short>(port)))
        return nullptr;
    return c;
}

bool FtpCtl::tls_data(Chan* data, std::string& why) {
    return SSLTcp_StartSSL(data->tcp.get(), nullptr, 0, why) == 1;
}

std::string FtpCtl::read_all(Chan* data) {
    std::string out;
    char bf[16384];
    for (;;) {
        int n = tcp_read_timed(data, bf, sizeof bf, kWaitMs);
        if (n <= 0) return out;
        out.append(bf, static_cast<size_t>(n));
    }
}

}  // namespace korv::test
