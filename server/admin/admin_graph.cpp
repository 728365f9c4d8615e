// The graph page (||do_graph||): the transfer volume of the last hour, per
// minute, drawn by the server as SVG, and bars of the counters the server
// keeps since its start (sessions served by kind, connections now and at most).
#include <algorithm>
#include <ctime>
#include <vector>

#include "base/fmt.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/session/link.h"
#include "server/session/threadlist.h"
#include "server/session/traffic.h"

namespace korv {

namespace {

constexpr int kBarWidth = 300;  // pixels of the longest bar
constexpr int kBarHeight = 14;

struct Counter {
    const char* name;
    long long value;
};

// The chart's frame: plot area inside margins for the axis texts.
constexpr int kSvgW = 720, kSvgH = 240, kLeft = 70, kRight = 10, kTop = 16, kBottom = 28;

std::string bytes_text(long long n) {
    const char* units[] = {"B", "KB", "MB", "GB", "TB"};
    double v = static_cast<double>(n);
    int u = 0;
    while (v >= 1024 && u < 4) {
        v /= 1024;
        ++u;
    }
    return u == 0 ? strfmt("%lld B", n) : strfmt("%.1f %s", v, units[u]);
}

}  // namespace

std::string traffic_svg(const std::vector<TRAFFIC_MINUTE>& series) {
    long long top = 0, down = 0, up = 0;
    for (const TRAFFIC_MINUTE& m : series) {
        top = std::max(top, std::max(m.down, m.up));
        down += m.down;
        up += m.up;
    }
    const int plot_w = kSvgW - kLeft - kRight, plot_h = kSvgH - kTop - kBottom;
    const int n = static_cast<int>(series.size());
    const int slot = n > 0 ? plot_w / n : plot_w;
    const int bar = slot > 2 ? (slot - 1) / 2 : 1;
    std::string h = strfmt(
        "<svg class=\"traffic\" viewBox=\"0 0 %d %d\" width=\"%d\" height=\"%d\" role=\"img\" "
        "aria-label=\"Bytes per minute over the last %d minutes: %s downloaded, %s uploaded\">\n",
        kSvgW, kSvgH, kSvgW, kSvgH, n, bytes_text(down).c_str(), bytes_text(up).c_str());
    strfmt_append(h, "<line x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\" stroke=\"#8a94a3\"/>\n", kLeft, kTop + plot_h,
                  kLeft + plot_w, kTop + plot_h);
    strfmt_append(h, "<line x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\" stroke=\"#8a94a3\"/>\n", kLeft, kTop, kLeft,
                  kTop + plot_h);
    strfmt_append(h, "<text x=\"%d\" y=\"%d\" font-size=\"11\" text-anchor=\"end\">%s</text>\n", kLeft - 4, kTop + 8,
                  bytes_text(top).c_str());
    strfmt_append(h, "<text x=\"%d\" y=\"%d\" font-size=\"11\" text-anchor=\"end\">0</text>\n", kLeft - 4,
                  kTop + plot_h);
    strfmt_append(h, "<text x=\"%d\" y=\"%d\" font-size=\"11\">-%d min</text>\n", kLeft, kSvgH - 8, n);
    strfmt_append(h, "<text x=\"%d\" y=\"%d\" font-size=\"11\" text-anchor=\"end\">now</text>\n", kLeft + plot_w,
                  kSvgH - 8);
    for (int i = 0; i < n && top > 0; ++i) {
        const TRAFFIC_MINUTE& m = series[static_cast<size_t>(i)];
        const int x = kLeft + 1 + i * plot_w / n;  // spread over the whole width
        const long long vals[2] = {m.down, m.up};
        const char* fills[2] = {"#2f6fb3", "#d9822b"};
        for (int k = 0; k < 2; ++k) {
            if (vals[k] <= 0) continue;
            int hgt = static_cast<int>(vals[k] * plot_h / top);
            if (hgt < 1) hgt = 1;
            strfmt_append(h, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\"><title>%s %s</title></rect>\n",
                          x + k * bar, kTop + plot_h - hgt, bar, hgt, fills[k], k == 0 ? "down" : "up",
                          bytes_text(vals[k]).c_str());
        }
    }
    h += "</svg>\n";
    strfmt_append(h,
                  "<p class=\"muted\"><span style=\"color:#2f6fb3\">&#9632;</span> downloaded %s &nbsp; "
                  "<span style=\"color:#d9822b\">&#9632;</span> uploaded %s, in the last %d minutes</p>\n",
                  bytes_text(down).c_str(), bytes_text(up).c_str(), n);
    return h;
}

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
    std::string h = "<h2>Transfer volume</h2>\n" + traffic_svg(traffic_series(time(nullptr)));
    h += "<h2>Since the start</h2>\n";
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
