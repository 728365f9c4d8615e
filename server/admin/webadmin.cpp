// The admin connection's thread, its request loop, the gates, the GET and
// POST tables, the refusal pages and the not-yet page.
#include "server/admin/webadmin.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/wild.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "net/ssltcp.h"
#include "net/tcp.h"
#include "net/tls.h"
#include "server/admin/settings_pages.h"
#include "server/process/korv.h"
#include "server/session/link.h"
#include "server/session/threadlist.h"
#include "server/settings/ini.h"

namespace korv {

std::atomic<int> added_web_callbacks{0};

const WEB_CB_MAPPINGS default_mappings[] = {
    {"graph.htm", "", mgr_cb_domains},
    {"log.htm", "", mgr_cb_domains},
    {"top.htm", "", mgr_cb_domains},
    {"status.htm", "", mgr_cb_domains},
    {"user.htm", "", mgr_cb_domains},
    {"mirror.htm", "", mgr_cb_mirrors},
    {"mirrors.htm", "", mgr_cb_mirrors},
    {nullptr, nullptr, nullptr},
};

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int> head_limit_ms{kAdminHeadLimitMs};

constexpr char kSecurityHeaders[] =
    "X-Frame-Options: DENY\r\n"
    "Content-Security-Policy: frame-ancestors 'none'\r\n"
    "Cache-Control: no-store\r\n";

LINK* link_of(WINK* w) { return static_cast<LINK*>(w->p1); }

void set_thread_name(WINK* w, const char* name) {
    LINK* l = link_of(w);
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    main_thread_set_name(l->th, name, l);
}

std::string http_date() {
    char bf[200];
    return lib_web_date(bf);
}

std::string realm_host() {
    char host[999] = "localhost";
    MutexHold hold(MUTEX_WEB);
    tcp_hostname(host, sizeof host);
    return host;
}

// Lines are written one by one; the first failed write ends the page.
struct Out {
    Chan* c;
    bool ok = true;
    void line(const std::string& s) {
        if (ok && tcp_write(c, s.data(), static_cast<int>(s.size())) != static_cast<int>(s.size())) ok = false;
    }
};

// ---------------------------------------------------------------- the tables

using Handler = int (*)(WINK*);

int show_top(WINK* w) { return mgr_cmd_domain(w); }
int show_tree(WINK* w) { return mgr_show(w, "top.htm"); }
int show_status(WINK* w) { return mgr_cmd_status(w); }

int show_help(WINK* w) { return my_web_show_help(w, "/korvane/manual/index.htm"); }

struct GetRoute {
    const char* cmd;
    Handler fn;
    const char* glow;  // the navigation variable lit on this page
};

const GetRoute kGetRoutes[] = {
    {"domain", show_top, nullptr},
    {"domain_add", mgr_cmd_domain, nullptr},
    {"global", mgr_cmd_global, "global_pressed"},
    {"class", mgr_cmd_class, nullptr},
    {"class_add", mgr_cmd_class, nullptr},
    {"mirrors", mgr_cmd_mirrors, "mirrors_pressed"},
    {"mirror", mgr_cmd_mirror_show, "mirrors_pressed"},
    {"mirror_add", mgr_cmd_mirror_show, "mirrors_pressed"},
    {"graph", mgr_graph, "graph_pressed"},
    {"help", show_help, nullptr},
    {"log", mgr_cmd_log, "log_pressed"},
    {"onoff", mgr_cmd_onoff, "onoff_pressed"},
    {"report_file", mgr_cmd_report, "report_pressed"},
    {"status", show_status, "status_pressed"},
    {"user_admin", mgr_cmd_user_admin, "users_pressed"},
    {"dump", mgr_cmd_dump, nullptr},
};

int user_save(WINK* w) { return mgr_cmd_user_save(w, 0); }
int user_create(WINK* w) { return mgr_cmd_user_save(w, 1); }
int diag_openmore(WINK* w) { return mgr_cmd_diag(w, "openmore"); }

struct PostRoute {
    const char* button;  // matched by web_pressed; null: the query cmd "dump"
    Handler fn;
    const char* glow;
};

// First match wins, in this order.
const PostRoute kPostRoutes[] = {
    {"cmd_shutdown", mgr_cmd_shutdown, "onoff_pressed"},
    {"cmd_openmore", diag_openmore, nullptr},
    {"cmd_stop", mgr_cmd_stop, "onoff_pressed"},
    {"cmd_start", mgr_cmd_start, "onoff_pressed"},
    {"cmd_restart", mgr_cmd_restart, "onoff_pressed"},
    {nullptr, mgr_cmd_dump, nullptr},
    {"cmd_class_delete", mgr_cmd_class_delete, nullptr},
    {"cmd_class_save", mgr_cmd_class_save, nullptr},
    {"cmd_global_save", mgr_cmd_global_save, "global_pressed"},
    {"cmd_domain", show_top, nullptr},
    {"cmd_domain_save", mgr_cmd_domain_save, nullptr},
    {"cmd_domain_delete", mgr_cmd_domain_delete, nullptr},
    {"cmd_domains", show_tree, nullptr},
    {"cmd_ereport_delete", mgr_cmd_report_remove, "report_pressed"},
    {"cmd_ereport_send", mgr_cmd_report_send, "report_pressed"},
    {"cmd_mirrors", mgr_cmd_mirrors, "mirrors_pressed"},
    {"cmd_mirror_save", mgr_cmd_mirror_save, "mirrors_pressed"},
    {"cmd_mirror_log", mgr_cmd_mirror_log, "mirrors_pressed"},
    {"cmd_mirror_retry", mgr_cmd_mirror_retry, "mirrors_pressed"},
    {"cmd_mirror_delete", mgr_cmd_mirror_delete, "mirrors_pressed"},
    {"cmd_status", show_status, "status_pressed"},
    {"cmd_dump", mgr_cmd_dump, nullptr},
    {"cmd_log", mgr_cmd_log, "log_pressed"},
    {"cmd_add_report", mgr_cmd_report_add, "report_pressed"},
    {"cmd_report", mgr_cmd_report, "report_pressed"},
    {"cmd_graph", mgr_graph, "graph_pressed"},
    {"cmd_global", mgr_cmd_global, "global_pressed"},
    {"cmd_misc", mgr_cmd_global, "global_pressed"},
    {"cmd_search_help", mgr_cmd_search_help, nullptr},
    {"cmd_user_admin", mgr_cmd_user_admin, "users_pressed"},
    {"cmd_user_lookup", mgr_cmd_user_lookup, "users_pressed"},
    {"cmd_user_save", user_save, "users_pressed"},
    {"cmd_user_create", user_create, "users_pressed"},
    {"cmd_user_delete", mgr_cmd_user_delete, "users_pressed"},
    {"cmd_user_wild_search", mgr_cmd_user_wild_search, "users_pressed"},
};

void glow(WINK* w, const char* var) {
    if (var != nullptr) web_var_add(w, var, "_glow");
}

void get_path(WINK* w, const std::string& cmd) {
    LINK* l = link_of(w);
    imsg("Web Thread: Query:%s, Command:%s FromIP:%s\n", w->ref.c_str(), cmd.c_str(), l->ipnum.c_str());
    if (w->cgi.rfind("/web/", 0) == 0) {
        // The folder itself is no file: its pages start at the admin's own.
        if (w->cgi.size() == 5)
            web_redirect(w, kAdminCgi);
        else
            my_web_show_file(w, w->cgi.c_str() + 5, "web");
        return;
    }
    set_thread_name(w, THREAD_ID_STRING_WEB_ADMIN);
    // Only six characters decide, so /helpme is a manual page too.
    if (w->cgi.compare(0, 6, "/help/") == 0) {
        web_http_header(w);
        show_help(w);
        return;
    }
    if (w->cgi.compare(0, 6, "/korvane/", 0, 6) == 0) {
        web_http_header(w);
        my_web_show_help(w, w->cgi.c_str());
        return;
    }
    web_http_header(w);
    if (mgr_is_diag(cmd)) {
        mgr_cmd_diag(w, cmd);
        return;
    }
    for (const GetRoute& r : kGetRoutes) {
        if (cmd != r.cmd) continue;
        glow(w, r.glow);
        r.fn(w);
        return;
    }
    mgr_cmd_domain(w);
}

void post_path(WINK* w, const std::string& cmd) {
    LINK* l = link_of(w);
    imsg("Web Thread: Submit:%s, FromIP:%s\n", w->ref.c_str(), l->ipnum.c_str());
    set_thread_name(w, THREAD_ID_STRING_WEB_ADMIN);
    web_http_header(w);
    for (const PostRoute& r : kPostRoutes) {
        bool hit = r.button != nullptr ? web_pressed(w, r.button) != 0 : cmd == "dump";
        if (!hit) continue;
        glow(w, r.glow);
        r.fn(w);
        return;
    }
}

// The variables every page has.
void set_page_vars(WINK* w) {
    web_var_add(w, "cgi", kAdminCgi);
    for (const char* v : {"domainid", "classid", "class_name", "domain"}) web_var_add(w, v, web_input(w, v));
    if (!korv_is_ftp_active()) {
        web_var_add(w, "server_message", "FTP Ports Disabled!");
        web_var_add(w, "ftp_stopped", "ftp_stopped");
    }
    time_t now = time(nullptr);
    char bf[32] = {};
    const char* t = safe_ctime(&now, bf);
    std::string text = t != nullptr ? t : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    web_var_add(w, "server_local_time", text);
}

bool admin_ip_allowed(const LINK* l) {
    const char* list = ini_get(nullptr, INI_GLOBAL_ADMINIP);
    if (list == nullptr || *list == 0 || l->ipnum == "127.0.0.1") return true;
    return lib_match_list(list, l->ipnum.c_str()) != 0;
}

}  // namespace

const char* admin_security_headers() { return kSecurityHeaders; }

void mgr_set_head_limit_ms(int ms) { head_limit_ms.store(ms); }

// ---------------------------------------------------------------- pages

int mgr_show(WINK* w, const char* fname) { return web_showfile_first(w, fname, default_mappings); }

int admin_safe_file_name(std::string_view name) {
    // Decoded here as well: a name that only looks harmless while encoded
    // must not reach the file layer.
    std::string d;
    for (size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '%' && i + 2 < name.size() && isxdigit(static_cast<unsigned char>(name[i + 1])) &&
            isxdigit(static_cast<unsigned char>(name[i + 2]))) {
            d += static_cast<char>(std::stoi(std::string(name.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            d += name[i];
        }
    }
    if (d.empty() || d.front() == '/' || d.front() == '\\') return 0;
    if (d.find('\0') != std::string::npos || d.find("..") != std::string::npos) return 0;
    if (d.find("//") != std::string::npos || d.find('\\') != std::string::npos) return 0;
    return 1;
}

int my_web_show_file(WINK* w, const char* name, const char* dir) {
    std::string n = name != nullptr ? name : "";
    std::string lower = n;
    for (char& ch : lower) ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    if (lower.find(".htm") == std::string::npos) set_thread_name(w, THREAD_ID_STRING_WEB_IMAGE);
    if (!admin_safe_file_name(n)) {
        imsg("Web Thread: refused file name (%.200s) FromIP:%s\n", n.c_str(), link_of(w)->ipnum.c_str());
        return 0;
    }
    return web_show_file(w, n.c_str(), dir);
}

int send_not_adminip(WINK* w) {
    LINK* l = link_of(w);
    Out o{w->c};
    o.line("HTTP/1.0 200\r\n");
    o.line("Server: KorvManager\r\n");
    o.line("MIME-version: 1.0\r\n");
    o.line("Content-type: text/html\r\n");
    o.line(strfmt("Date: %s\r\n", http_date().c_str()));
    o.line(kSecurityHeaders);
    o.line("\r\n");
    o.line("<html><body><h3>\r\n");
    o.line(strfmt("Sorry you are not connecting from a valid ip address (%s)<br>\n", web_encode(l->ipnum).c_str()));
    o.line("<br>\n");
    o.line("Connect from the right IP, or change g_admin_ip in korvane.ini\n");
    o.line("</h3></body></html>\r\n");
    return o.ok ? 1 : 0;
}

int send_wait_for_timeout_message(WINK* w) {
    int secs = secs_before_loging_in_again();
    int mins = secs / 60;
    secs %= 60;
    Out o{w->c};
    o.line("HTTP/1.0 401 Unauthorized\r\n");
    o.line("Server: KorvManager\r\n");
    o.line("MIME-version: 1.0\r\n");
    o.line("Content-type: text/html\r\n");
    o.line(strfmt("WWW-Authenticate: Basic realm=\"%s.%s\"\r\n", kAdminProgram, realm_host().c_str()));
    o.line(strfmt("Date: %s\r\n", http_date().c_str()));
    o.line(kSecurityHeaders);
    o.line("\r\n");
    o.line(strfmt("<html><HEAD><TITLE>401 Authorization failed, wait %d min %d sec before retrying. </TITLE></HEAD>"
                  "<body><h3>\r\n",
                  mins, secs));
    o.line("Welcome to Korvane Manager CGI<br>\n");
    o.line("<br>\n");
    o.line("Something has been sending incorrect passwords while attempting<br>\n");
    o.line("to login and this has activated this protection page.<br>\n");
    o.line(strfmt("You must wait another %d minutes and %d seconds, before your login will be accepted.<br>\n", mins,
                  secs));
    o.line("If you are the administrator of this server, you can restart the Korvane<br>\n");
    o.line("process to reset this variable to zero seconds, or to change the password use \"korvane -password\".<br>\n");
    o.line("</h3></body></html>\r\n");
    return o.ok ? 1 : 0;
}

// ---------------------------------------------------------------- requests

int mgr_request(WINK* w, char* bf, int* upto, int* nrest) {
    LINK* l = link_of(w);
    web_decode_head(w, bf, upto, nrest);
    web_read_content(w, bf, upto, nrest);
    std::string cmd = pair_find(w->query.get(), "cmd");
    if (cmd.size() > static_cast<size_t>(kAdminCmdMax)) cmd.resize(kAdminCmdMax);
    link_state_set(l, strfmt("Processing cmd %s", cmd.c_str()));
    set_page_vars(w);

    if (!admin_ip_allowed(l)) {
        send_not_adminip(w);
        imsg("Web Thread: INVALID FromIP:%s\n", l->ipnum.c_str());
    } else if (!allow_login_attempt_to_take_place()) {
        link_state_set(l, "Login not allowed at this time");
        send_wait_for_timeout_message(w);
    } else if (!w->gotwebauth) {
        web_needauth(w, kAdminProgram);
    } else if (!w->wwwget && !web_same_origin(w)) {
        // Another site's page may not change anything here.
        imsg("Web Thread: cross-site POST refused, Origin:%.100s Referer:%.100s FromIP:%s\n", w->origin.c_str(),
             w->referer.c_str(), l->ipnum.c_str());
        web_forbidden(w);
    } else if (w->wwwget) {
        get_path(w, cmd);
    } else {
        post_path(w, cmd);
    }
    web_var_free(w);
    l->closing.store(1);
    return 1;
}

int mgr_process(WINK* w) {
    LINK* l = link_of(w);
    l->ipnum = l->ipname.substr(0, kAdminIpMax);
    link_state_set(l, "Web request");
    for (;;) {
        char* start = w->inbf.data() + w->inupto;
        int avail = w->inlen - w->inupto;
        std::string_view held(start, static_cast<size_t>(avail > 0 ? avail : 0));
        size_t end = held.find("\r\n\r\n");
        if (end == std::string_view::npos) {
            dmsg("Waiting for end of request\n");
            return 1;
        }
        int upto = static_cast<int>(end) + 4;
        int nrest = avail - upto;
        imsg("mgr: request start\n");
        mgr_request(w, start, &upto, &nrest);
        imsg("mgr: request done nrest=%d\n", nrest);
        if (nrest > 0) memmove(w->inbf.data(), start + upto, static_cast<size_t>(nrest));
        w->inlen = nrest > 0 ? nrest : 0;
        w->inupto = 0;
        if (w->inmax > w->inlen) w->inbf[static_cast<size_t>(w->inlen)] = 0;
        imsg("mgr: inlen %d\n", w->inlen);
        // One request a connection: what follows it is never served.
        if (w->inlen == 0 || l->closing.load()) return 1;
    }
}

void mgr_add_web_callbacks() {
    if (added_web_callbacks.exchange(1) != 0) return;
    web_callback_add("domain_tree", mgr_do_domain_tree);
    web_callback_add("do_status", mgr_status);
    web_callback_add("do_log", mgr_log);
    web_callback_add("do_graph", mgr_do_graph);
    web_callback_add("do_user_list", mgr_do_user_list);
    web_callback_add("do_email_report_list", mgr_do_email_report_list);
    web_callback_add("report_domain_options", mgr_do_report_domain_options);
    mgr_add_settings_callbacks();
    web_callback_add("do_mirror_log", mgr_do_mirror_log);
}

namespace {

// One read of the head into the input buffer: bytes read, 0 when the wait
// step passed with nothing, -1 when the connection ended or failed.
int read_step(WINK* w, Chan* c) {
    if (w->inmax - w->inlen < 10 && !wink_growin(w)) return -2;
    if (w->inmax - w->inlen < 10) return -2;
    int room = w->inmax - w->inlen - 1;
    int n = tcp_read_timed(c, w->inbf.data() + w->inlen, room, kAdminReadStepMs);
    if (n > 0) {
        w->inlen += n;
        w->inbf[static_cast<size_t>(w->inlen)] = 0;
        return n;
    }
    if (n < 0 && c->tcp->ErrorCode == EAGAIN) return 0;
    return -1;
}

// What the reason of a failed handshake may carry into a reply line.
std::string one_line(std::string s) {
    for (char& ch : s)
        if (ch == '\r' || ch == '\n') ch = ' ';
    return s;
}

}  // namespace

int mgr_main(void* x) {
    LINK* l = static_cast<LINK*>(x);
    imsg("mgr: mgr_main called\n");
    double t_start = lib_msec_now() / 1000.0;
    if (l == nullptr || !l->c) {
        imsg("Thread passed null, thats odd\n");
        return 0;
    }
    Chan* c = l->c.get();
    if (l->ssl_implicit) {
        l->ssl_data = 1;
        l->ssl_con = 1;
        dmsg("Secure Web Admin Port, connection Enabling SSL\r\n");
        Entropy_Gather_connection(c, t_start);
        std::string reason;
        if (!new_tcp_ssl_init(c, &my_webmgr_sslconfig, 1, reason)) {
            tcp_printf(c, "HTTP/1.0 401 Authorization Failed - SSL Required (%.500s)\r\n\r\n", one_line(reason).c_str());
            imsg("mgr: mgr_main ssl failed to start %s\n", reason.c_str());
            return 0;
        }
    }
    imsg("mgr: mgr_main ssl started\n");
    WinkPtr w = wink_new();
    w->c = c;
    w->p1 = l;
    mgr_add_web_callbacks();

    char rmt[64] = {}, lcl[64] = {};
    tcp_getip(c, rmt);
    tcp_getmyip(c, lcl);
    l->ipname = rmt;
    l->myip = lcl;
    w->client_ip = rmt;
    if (l->myip.empty()) {
        imsg("I can't get my IP address :-(\n");
        wink_free(w);
        return 0;
    }
    if (l->ini == nullptr) ini_setdomain(l, l->myip.c_str());

    // Each read waits a second at most; the head as a whole gets
    // kAdminHeadLimitMs, and no more than the input buffer holds.
    const int limit_ms = head_limit_ms.load();
    const auto head_deadline = Clock::now() + std::chrono::milliseconds(limit_ms);
    while (!l->closing.load() && !shutdown_now.load()) {
        int n = read_step(w.get(), c);
        if (n == -2) {
            imsg("mgr: request head over %d bytes from %s, closing\n", kWebHeadMax, l->ipname.c_str());
            break;
        }
        if (n < 0) break;
        if (n > 0 && !mgr_process(w.get())) break;
        if (!l->closing.load() && Clock::now() >= head_deadline) {
            imsg("mgr: no complete request from %s in %d ms, closing\n", l->ipname.c_str(), limit_ms);
            break;
        }
    }
    imsg("mgr: Finished processing requests\n");
    // The browser's unread tail is taken, so that the close is not a reset.
    char tail[999];
    tcp_read_timed(c, tail, sizeof tail, 0);
    imsg("mgr: mgr_main read at end\n");
    wink_free(w);
    imsg("mgr: mgr_main end done\n");
    return 1;
}

}  // namespace korv
