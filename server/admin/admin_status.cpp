// The status page: the sessions of the session table (who, from where, what
// they do, bytes, idle time) and the server's totals (||do_status||).
#include <ctime>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/threads.h"
#include "common/mutex.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/process/korv.h"
#include "server/session/link.h"
#include "server/session/runstate.h"
#include "server/session/threadlist.h"

namespace korv {

namespace {

std::string duration(long secs) {
    if (secs < 0) secs = 0;
    return strfmt("%ld:%02ld:%02ld", secs / 3600, (secs / 60) % 60, secs % 60);
}

void total_row(std::string& h, const char* name, long long v) {
    strfmt_append(h, "<tr><th>%s</th><td class=\"num\">%lld</td></tr>\n", name, v);
}

}  // namespace

std::string mgr_status_html() {
    const time_t now = time(nullptr);
    std::string h;
    h.reserve(64 * 1024);
    int shown = 0;
    long long bytes = 0;
    h += "<table class=\"grid\">\n<tr><th>User</th><th>Address</th><th>Class</th><th>Doing</th>"
         "<th class=\"num\">Bytes</th><th class=\"num\">Connected</th><th class=\"num\">Idle</th></tr>\n";
    {
        // The fields read here are the ones the session table's own dump reads
        // under the same lock; the activity text has its own guard.
        MutexHold hold(MUTEX_LINK);
        for (Link* x = link_list; x != nullptr; x = x->next) {
            if (x->hide) continue;
            const bool web = x->c == nullptr || x->user.empty();
            const std::string state = link_state_get(x);
            const long idle = x->idle_time_start > 0 ? static_cast<long>(now - x->idle_time_start) : 0;
            const long long sent = x->sent;
            bytes += sent;
            ++shown;
            strfmt_append(h,
                          "<tr><td>%s</td><td>%s</td><td>%s</td><td>%s</td><td class=\"num\">%lld</td>"
                          "<td class=\"num\">%s</td><td class=\"num\">%s</td></tr>\n",
                          x->user.empty() ? "<span class=\"muted\">-</span>" : web_encode(x->user).c_str(),
                          web_encode(x->ipnum).c_str(),
                          x->isanon ? "anonymous" : (web ? "<span class=\"muted\">-</span>" : "user"),
                          web_encode(state).c_str(), sent, duration(static_cast<long>(now - x->time_open)).c_str(),
                          duration(idle).c_str());
        }
    }
    if (shown == 0) h += "<tr><td colspan=\"7\" class=\"muted\">No connections.</td></tr>\n";
    h += "</table>\n";

    int threads = 0, ftp = 0, web = 0, idle = 0;
    {
        MutexHold hold(MUTEX_CREATE_THREAD_LIST);
        for (THREADLIST* t = main_thread_list(); t != nullptr; t = t->next) {
            ++threads;
            if (t->threadname == THREAD_ID_STRING_FTP || t->threadname == THREAD_ID_STRING_ANONFTP ||
                t->threadname == THREAD_ID_STRING_CHANNEL_OPENING)
                ++ftp;
            else if (t->threadname == THREAD_ID_STRING_WEB_ADMIN || t->threadname == THREAD_ID_STRING_WEB_IMAGE)
                ++web;
            else if (t->threadname == THREAD_ID_IDLE_THREAD)
                ++idle;
        }
    }
    h += "<table class=\"grid\">\n";
    total_row(h, "Connections now", link_nlinks());
    total_row(h, "Most connections at once", link_peak());
    total_row(h, "Logged-in FTP users", total_logged_in_users());
    total_row(h, "Bytes sent by these connections", bytes);
    total_row(h, "FTP sessions served", get_server_FTP_sessions_served());
    total_row(h, "Anonymous sessions served", get_server_AnonFTP_sessions_served());
    total_row(h, "Admin pages served", get_server_GUI_sessions_served());
    total_row(h, "Admin files served", get_server_IMG_sessions_served());
    total_row(h, "Threads (sessions, admin, idle)", threads);
    total_row(h, "Session threads", ftp);
    total_row(h, "Admin threads", web);
    total_row(h, "Idle pool threads", idle);
    total_row(h, "Processor time (ms)", korv_main_cpu_msec());
    strfmt_append(h, "<tr><th>Up for</th><td class=\"num\">%s</td></tr>\n",
                  duration(static_cast<long>(now - start_time)).c_str());
    strfmt_append(h, "<tr><th>FTP ports</th><td>%s</td></tr>\n", korv_is_ftp_active() ? "open" : "stopped");
    h += "</table>\n";
    return h;
}

void mgr_status(WINK* w) {
    std::string h = mgr_status_html();
    web_out(w, h);
}

int mgr_cmd_status(WINK* w) { return mgr_show(w, "status.htm"); }

}  // namespace korv
