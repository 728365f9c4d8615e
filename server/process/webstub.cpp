// The placeholder page of the administration ports.
#include "server/process/webstub.h"

#include <cstring>
#include <string>

#include "common/emsg.h"
#include "net/tls.h"
#include "server/process/korv.h"
#include "server/session/link.h"

namespace korv {

namespace {

constexpr char kPage[] =
    "<html><head><title>Korvane</title></head><body>\n"
    "<h1>Korvane</h1>\n"
    "<p>The web administration is not part of this build yet.</p>\n"
    "</body></html>\n";

}  // namespace

int mgr_main_no_threads(LINK* l) {
    Chan* c = l->c.get();
    if (c == nullptr) return 0;
    if (l->ssl_implicit) {
        std::string reason;
        if (!new_tcp_ssl_init(c, &my_webmgr_sslconfig, 1, reason)) {
            dmsg("web: TLS failed %s\n", reason.c_str());
            return 0;
        }
    }
    // The request head is read and dropped: every path gets the same page.
    std::string head;
    char bf[1024];
    while (head.find("\r\n\r\n") == std::string::npos && head.find("\n\n") == std::string::npos &&
           head.size() < 16384) {
        int n = tcp_read_timed(c, bf, sizeof bf, kWebStubReadMs);
        if (n <= 0) break;
        head.append(bf, static_cast<size_t>(n));
    }
    tcp_printf(c,
               "HTTP/1.0 200 OK\r\nServer: Korvane/%s\r\nContent-Type: text/html\r\nContent-Length: %zu\r\n"
               "Connection: close\r\n\r\n%s",
               KORV_VERSION, strlen(kPage), kPage);
    return 1;
}

}  // namespace korv
