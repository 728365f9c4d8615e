// Data channels: PORT, EPRT, PASV and EPSV, the round-robin passive port
// chooser, and the opening (accept or connect, 150 reply, TLS) and closing of
// the data connection of one transfer.
#include "server/ftp/datachan.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/fmt.h"
#include "base/str.h"
#include "base/tokens.h"
#include "base/wild.h"
#include "common/emsg.h"
#include "net/ssltcp.h"
#include "net/tcp.h"
#include "net/tls.h"
#include "server/ftp/cmd.h"
#include "server/session/link.h"
#include "server/settings/ini.h"

namespace korv {
namespace {

constexpr size_t kDecodeCopyMax = 100;  // bytes of a PORT or EPRT argument looked at
constexpr int kEprtTokens = 90;         // token bound of the EPRT split
constexpr size_t kEprtHostMax = 100;    // bytes of the EPRT address
constexpr size_t kConnectReasonMax = 100;
constexpr size_t kPasvAddrMax = 100;    // bytes of the advertised passive address
constexpr int kLingerSeconds = 5;

// The last passive port handed out, one for the process. The sessions race on
// it by design: two may try one port, and the loser moves on.
std::atomic<int> last_used{0};

// atoi that wraps instead of overflowing: digits past the range of a port
// only matter modulo 2^16.
long long number_of(const char* s) { return strtoll(s, nullptr, 10); }

std::string cut(std::string s, size_t n) {
    if (s.size() > n) s.resize(n);
    return s;
}

// Steps 3 to 5 of PORT and EPRT: the host test, the port test, and the end of
// any open data channel. Only an accepted address replaces the one before.
void port_common(LINK* l, const std::string& newto, unsigned short newport) {
    bool proceed = true;
    if (newto != l->to) {
        if (!ini_true(l, INI_FTP_PROXY)) {
            cmd_write(l,
                      "500 Illegal PORT command, wrong host (%.500s) (%.500s) use passive mode or enable in "
                      "class settings\r\n",
                      newto.c_str(), l->to.c_str());
            proceed = false;
        } else {
            imsg("Customer is using ftp_proxy (%.100s) (%.100s)\n", newto.c_str(), l->to.c_str());
        }
    }
    if (proceed) {
        if (newport > 1023) {
            l->to = cut(newto, kPortHostMax);
            l->port = newport;
            cmd_write(l, "200 PORT command successful.\r\n");
        } else {
            cmd_write(l, "500 Illegal PORT command, must use port>1023.\r\n");
        }
    }
    // A listener left from PASV stays, and so does passive mode.
    l->cdata.reset();
}

int refuse_after_epsv_all(LINK* l, const char* verb) {
    if (!l->onlyepsv) return 0;
    cmd_write(l, "500 Illegal (%.100s) after epsv all command\r\n", verb);
    return 1;
}

// Tries to listen on every port from `from` to `port_max`; `*port` holds the
// last one tried.
int listen_from(LINK* l, int from, int port_max, int* port) {
    for (int i = from; i <= port_max; i++) {
        *port = i;
        l->listen = tcp_new_owned();
        if (tcp_listen(l->listen.get(), nullptr, static_cast<unsigned short>(i), 0)) return 1;
        l->listen.reset();
    }
    return 0;
}

// Waits for the client on the passive listener. A connection from any other
// address than the control connection's is closed and the wait goes on within
// the same limit, unless the class allows transfers to other hosts.
int accept_passive(LINK* l, std::string& reason) {
    link_state_set(l, "data passive2");
    const double deadline = getdtime() + kPassiveWaitMs / 1000.0;
    const bool any_host = ini_true(l, INI_FTP_PROXY) != 0;
    for (;;) {
        int left = static_cast<int>((deadline - getdtime()) * 1000);
        if (left < 0) left = 0;
        if (!tcp_need_attention(l->listen.get(), left)) {
            imsg("accept failed, timedout after 3 minutes\n");
            reason = "Listen: timedout waiting for connection";
            ftp_end_datachan(l);
            return 0;
        }
        link_state_set(l, "data passive3");
        l->cdata = tcp_new_owned();
        if (!tcp_accept_noblock(l->listen.get(), l->cdata.get(), kPassiveAcceptMs)) {
            imsg("accept failed\n");
            reason = strfmt("Listen: (%s)", tcp_error(l->cdata.get()).c_str());
            ftp_end_datachan(l);
            return 0;
        }
        char peer[64] = "";
        tcp_getip(l->cdata.get(), peer);
        if (any_host || l->ipnum == peer) return 1;
        imsg("Refused passive data connection from %.100s, the client is %.100s\n", peer, l->ipnum.c_str());
        l->cdata.reset();
    }
}

int connect_active(LINK* l, std::string& reason) {
    dmsg("Open datachan, from(%s:%d) to(%s:%d)\n", l->myip.c_str(), l->lclport, l->to.c_str(), l->port);
    link_state_set(l, "data notpassive1");
    l->cdata = tcp_new_owned();
    link_state_set(l, "data bind1");
    if (!tcp_bind(l->cdata.get(), l->myip.c_str(), l->lclport, 0, 1)) {
        reason = strfmt("Cannot Bind %s:%d %s", l->myip.c_str(), l->lclport, tcp_error(l->cdata.get()).c_str());
        ftp_end_datachan(l);
        return 0;
    }
    time_t t0 = time(nullptr);
    link_state_set(l, "data open");
    if (!tcp_open(l->cdata.get(), l->to.c_str(), l->port)) {
        reason = cut(strfmt("Cannot connect to dest socket %.500s:%d %.500s %d sec", l->to.c_str(), l->port,
                            tcp_error(l->cdata.get()).c_str(), static_cast<int>(time(nullptr) - t0)),
                     kConnectReasonMax);
        ftp_end_datachan(l);
        return 0;
    }
    return 1;
}

}  // namespace

int datachan_last_used() { return last_used.load(std::memory_order_relaxed); }
void datachan_set_last_used(int port) { last_used.store(port, std::memory_order_relaxed); }

int ftp_decode_port(const char* s, std::string& to, unsigned short* port) {
    std::string x(s, strnlen(s, kDecodeCopyMax));
    size_t at = 0;
    for (int commas = 0; commas < 4; commas++) {
        at = x.find(',', at);
        if (at == std::string::npos) return 0;
        if (commas < 3) x[at++] = '.';
    }
    to = cut(x.substr(0, at), kPortHostMax);
    const char* rest = x.c_str() + at + 1;
    long long v = number_of(rest) * 256;
    if (const char* comma = strchr(rest, ',')) v += number_of(comma + 1);
    *port = static_cast<unsigned short>(v & 0xFFFF);
    return 1;
}

int ftp_decode_eport(const char* inx, std::string& to, unsigned short* port, int* proto) {
    if (*inx == 0) return 0;
    std::string x(inx, strnlen(inx, kDecodeCopyMax));
    const char sep[2] = {x[0], 0};
    char* p[kEprtTokens + 1] = {};
    int n = token_split2(x.data(), p, sep, kEprtTokens);
    if (n <= 3) return 0;
    *proto = static_cast<int>(number_of(p[1]));
    to = cut(p[2], kEprtHostMax);
    *port = static_cast<unsigned short>(number_of(p[3]) & 0xFFFF);
    return 1;
}

std::string ftp_portstr(const char* address, int port) {
    std::string s = strfmt("%.20s,%d,%d", address, port / 256, port % 256);
    for (char& ch : s) {
        if (ch == '.') ch = ',';
    }
    return s;
}

int cmd_port(LINK* l, char** p, int, const char*) {
    if (refuse_after_epsv_all(l, p[0])) return 0;
    std::string newto;
    unsigned short newport = 0;
    ftp_decode_port(p[1], newto, &newport);
    dmsg("Received port connect-to-client info %s:%d \n", newto.c_str(), newport);
    port_common(l, newto, newport);
    return 1;
}

int cmd_eprt(LINK* l, char** p, int, const char*) {
    if (refuse_after_epsv_all(l, p[0])) return 0;
    std::string newto;
    int proto = 0;
    unsigned short newport = 0;
    if (!ftp_decode_eport(p[1], newto, &newport, &proto)) {
        cmd_write(l, "500 Bad port syntax (%.400s)\r\n", p[1]);
        return 0;
    }
    dmsg("Received eprt connect-to-client info %s:%d \n", newto.c_str(), newport);
    if (proto != 1) {
        cmd_write(l, "522 Network protocol not supported, use (1)\r\n");
        return 0;
    }
    imsg("REceieved eprt (%s) %d\n", newto.c_str(), newport);
    port_common(l, newto, newport);
    return 1;
}

int cmd_do_pasv(LINK* l, unsigned short* rport) {
    l->listen.reset();
    const int first = ini_geti(l, INI_PASSIVE_PORT);
    int port = first;
    int port_max = ini_geti(l, INI_PASSIVE_PORT_MAX);
    if (port_max == 0) port_max = static_cast<unsigned short>(port + 999);
    if (port > last_used.load(std::memory_order_relaxed)) last_used.store(port, std::memory_order_relaxed);
    if (port == 0) last_used.store(-1, std::memory_order_relaxed);
    // After a fruitless first pass the second starts from the last port it
    // tried, so the rotation reaches the top of the range and then wraps.
    int ok = listen_from(l, last_used.load(std::memory_order_relaxed) + 1, port_max, &port);
    if (!ok) ok = listen_from(l, port, port_max, &port);
    if (!ok) {
        emsg("Could not listen on port\n");
        cmd_write(l, "500 could not listen on specified port(s) %d-%d\r\n", first, port_max);
        return 0;
    }
    unsigned short real = 0;
    tcp_getipandports(l->listen.get(), nullptr, &real, nullptr, nullptr);
    last_used.store(real, std::memory_order_relaxed);
    imsg("do_pasv chose passive port %d \n", real);
    *rport = real;
    return 1;
}

int cmd_pasv(LINK* l, char** p, int, const char*) {
    if (refuse_after_epsv_all(l, p[0])) return 0;
    unsigned short port = 0;
    if (!cmd_do_pasv(l, &port)) return 0;
    const char* v = ini_get(l, INI_PASSIVE_IPNUMBER);
    std::string addr = cut(v != nullptr ? v : "", kPasvAddrMax);
    const char* match = ini_get(nullptr, INI_GLOBAL_PASSIVE_MATCH);
    if (lib_match_list(match != nullptr ? match : "", l->ipnum.c_str())) {
        const char* gip = ini_get(nullptr, INI_GLOBAL_PASSIVE_IP);
        addr = cut(gip != nullptr ? gip : "", kPasvAddrMax);
        imsg("global_passive_match applied so using ip (%s)\n", addr.c_str());
    }
    if (addr.empty()) {
        char my[64] = "";
        if (!l->c || !tcp_getipandports(l->c.get(), my, nullptr, nullptr, nullptr)) {
            cmd_write(l, "550 Error (%.100s) I can't find my IP address.\r\n", p[0]);
            return 0;
        }
        addr = my;
    }
    imsg("Passive Listening on port %d ip address %.500s\n", port, addr.c_str());
    cmd_write(l, "227 Entering Passive Mode (%.500s).\r\n", ftp_portstr(addr.c_str(), port).c_str());
    l->ispassive = 1;
    return 1;
}

int cmd_epsv(LINK* l, char** p, int, const char*) {
    std::string arg = str_lower(cut(p[1], kDecodeCopyMax));
    if (arg == "all") {
        l->onlyepsv = 1;
    } else if (number_of(arg.c_str()) > 1) {
        cmd_write(l, "522 Network protocol not supported, use (1)\r\n");
        return 0;
    }
    unsigned short port = 0;
    if (!cmd_do_pasv(l, &port)) return 0;
    cmd_write(l, "229 Entering Extended Passive Mode (|||%d|)\r\n", port);
    l->ispassive = 1;
    return 1;
}

int ftp_open_datachan(LINK* l, std::string& reason, const char* filename) {
    const double t_start = getdtime();
    bool need_cert = false;
    if (l->ssl_data) {
        const char* v = ini_get(nullptr, INI_GLOBAL_SSL_REQUIRE_CLIENT_CERTIFICATE);
        need_cert = str_lower(v != nullptr ? v : "") == "true";
    }
    reason = "No reason given";

    if (l->ispassive) {
        link_state_set(l, "data passive1");
        if (!l->listen) {
            imsg("No passive link to accept.\n");
            reason = "No passive link to accept.";
            return 0;
        }
        if (!accept_passive(l, reason)) return 0;
        link_state_set(l, "data passive4");
        if (l->ssl_data) {
            dmsg("Open datachan , accept passive link succeeded, starting ssl...\n");
        } else {
            imsg("Open datachan , accept passive link succeeded\n");
        }
    } else {
        if (!connect_active(l, reason)) return 0;
        if (l->ssl_data) {
            dmsg("Data channel connected to destination socket, starting ssl... \n");
        } else {
            imsg("Data channel connected to destination socket.\n");
        }
    }
    // Bulk data: no small-segment pushing.
    tcp_set_nodelay(l->cdata.get(), 0);

    link_state_set(l, "data opening");
    cmd_write(l, "150 Opening %.500s connection for %.500s\r\n", l->isbin ? "BINARY" : "ASCII",
              filename != nullptr ? filename : "");

    Entropy_Gather_connection(l->cdata.get(), t_start);

    if (l->ssl_data) {
        dmsg("Encrypting data link\n");
        link_state_set(l, "data ssl1");
        std::string etext;
        if (!new_tcp_ssl_init(l->cdata.get(), korv_main_ssl_get_ftpconn(), l->SSCNisServer, etext)) {
            if (need_cert) {
                imsg("Unable to enable ssl %s, no client certificate?\n", etext.c_str());
                reason = cut(strfmt("Must have SSL certificate! (%s)\r\n", etext.c_str()), kDataReasonMax);
            } else {
                imsg("Unable to enable ssl %s, on connected port\n", etext.c_str());
                reason = cut(strfmt("Cant start SSL (%s)\r\n", etext.c_str()), kDataReasonMax);
            }
            return 0;
        }
        imsg("Opened secure data channel, %s\n", etext.c_str());
    }
    return 1;
}

int ftp_end_datachan(LINK* l) {
    if (l->cdata) {
        tcp_setlinger(l->cdata.get(), 1, kLingerSeconds);
        tcp_close(l->cdata.get());
        l->cdata.reset();
    }
    l->listen.reset();
    l->ispassive = 0;
    return 1;
}

}  // namespace korv
