// AUTH, PROT, PBSZ and SSCN: the four fields of the session that say whether
// the control and data channels run TLS and in which role.
#include "server/ftp/cmd_tls.h"

#include <strings.h>

#include <string>

#include "base/str.h"
#include "common/emsg.h"
#include "net/ssltcp.h"
#include "net/tcp.h"
#include "net/tls.h"
#include "server/ftp/cmd.h"
#include "server/session/link.h"
#include "server/settings/ini.h"

namespace korv {

int cmd_auth(LINK* l, char** p, int, const char*) {
    if (l->ssl_implicit) {
        cmd_write(l, "500 Secure mode is already started.\r\n");
        return 0;
    }
    const char* mode = ini_get(nullptr, INI_GLOBAL_SSL);
    if (str_lower(mode != nullptr ? mode : "") == "disable") {
        cmd_write(l, "500 SSL encryption disabled\r\n");
        return 0;
    }
    std::string method = str_lower(p[1]);
    if (method == "ssl" || method == "tls-p") {
        l->ssl_data = l->ssl_con = 1;
    } else if (method == "tls-c" || method == "tls") {
        l->ssl_data = 0;
        l->ssl_con = 1;
    } else {
        cmd_write(l, "504 Unknown auth method %.40s\r\n", str_upper(p[1]).c_str());
        return 0;
    }

    Entropy_Gather_connection(l->c.get(), getdtime());

    cmd_write(l, "234 Enabling SSL\r\n");
    // Whatever the client sent after AUTH and before its handshake came in the
    // clear; it must not run as if it had been protected.
    l->w.inupto = l->w.inlen;
    l->w.inscan = l->w.inlen;
    std::string reason;
    // The control channel is always the server side of TLS; SSCN is for data
    // connections only.
    if (!l->c || !new_tcp_ssl_init(l->c.get(), korv_main_ssl_get_ftpconn(), 1, reason)) {
        imsg("Unable to enable ssl, %s\n", reason.c_str());
        l->ssl_data = 0;
        cmd_write(l, "550 cannot enable SSL (%s)\r\n", reason.c_str());
        // The stream is in no known state (a handshake's tail, or TLS without
        // the certificate we require): nothing more is read from it.
        l->ssl_con = 0;
        l->w.inupto = l->w.inlen;
        l->w.inscan = l->w.inlen;
        l->closing = 1;
        return 0;
    }
    imsg("Command Channel is encrypted, %s\n", reason.c_str());
    return 1;
}

int cmd_prot(LINK* l, char** p, int, const char*) {
    std::string level = str_lower(p[1]);
    if (level == "p") {
        l->ssl_data = 1;
        cmd_write(l, "200 Data channel will be encrypted\r\n");
    } else if (level == "c") {
        l->ssl_data = 0;
        cmd_write(l, "200 Data channel will be clear text\r\n");
    } else {
        cmd_write(l, "536 Unsupported option\r\n");
        return 0;
    }
    return 1;
}

int cmd_pbsz(LINK* l, char**, int, const char*) {
    cmd_write(l, "200 Great whatever you say\r\n");
    return 1;
}

int cmd_sscn(LINK* l, char** p, int np, const char*) {
    if (np > 1 && p[1][0] != 0) {
        if (strncasecmp(p[1], "on", 2) == 0) {
            l->SSCNisServer = 0;
        } else if (strncasecmp(p[1], "of", 2) == 0) {
            l->SSCNisServer = 1;
        } else {
            cmd_write(l, "500 Invalid syntax, use either ON or OFF\r\n");
            return 0;
        }
    }
    cmd_write(l, "200 SSCN:%s METHOD\r\n", l->SSCNisServer == 0 ? "CLIENT" : "SERVER");
    return 1;
}

}  // namespace korv
