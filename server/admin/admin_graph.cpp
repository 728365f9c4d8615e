// The graph page: bars of the counters the server keeps since its start
// (sessions served by kind, connections now and at most) (||do_graph||).
#include <vector>

#include "base/fmt.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/session/link.h"
#include "server/session/threadlist.h"

namespace korv {

namespace {

constexpr int kBarWidth = 300;  // pixels of the longest bar
constexpr int kBarHeight = 14;

struct Counter {
    const char* name;
    long long value;
};

}  // namespace

int mgr_graph(WINK* w) { return mgr_show(w, "graph.htm"); }

void mgr_do_graph(WINK* w) {
    const std::vector<Counter> counters = {
        {"FTP sessions served", get_server_FTP_sessions_served()},
        {"Anonymous sessions served", get_server_AnonFTP_sessions_served()},
        {"Admin pages served", get_server_GUI_sessions_served()},
        {"Admin files served", get_server_IMG_sessions_served()},
        {"Connections now", link_nlinks()},
        {"Most connections at once", link_peak()},
        {"Logged-in FTP users", total_logged_in_users()},
    };
    long long top = 0, ftp = counters[0].value + counters[1].value;
    for (const Counter& c : counters)
        if (c.value > top) top = c.value;
    std::string h;
    if (ftp == 0) {
        h += "<p class=\"msg\">Nothing to graph yet: no FTP session has been served since the server "
             "started.</p>\n";
    }
    h += "<table class=\"grid\">\n<tr><th>Since the start</th><th class=\"num\">Count</th><th></th></tr>\n";
    for (const Counter& c : counters) {
        int width = top > 0 ? static_cast<int>(c.value * kBarWidth / top) : 0;
        strfmt_append(h,
                      "<tr><td>%s</td><td class=\"num\">%lld</td><td><svg width=\"%d\" height=\"%d\" "
                      "role=\"img\" aria-label=\"%lld\"><rect width=\"%d\" height=\"%d\" fill=\"currentColor\"/>"
                      "</svg></td></tr>\n",
                      c.name, c.value, kBarWidth, kBarHeight, c.value, width, kBarHeight);
    }
    h += "</table>\n";
    web_out(w, h);
}

}  // namespace korv
