// The web administration's routing: the thread of one admin connection
// (mgr_main: TLS on the secure port, reading, one request, closing), the three
// gates (addresses, guess back-off, password), the cross-site refusal, the GET
// and POST tables, and the page handlers they lead to. Handlers take the
// connection's WINK; its p1 is the LINK.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "server/admin/webtpl.h"

namespace korv {

struct LINK;

inline constexpr char kAdminCgi[] = "/cgi/korvanemgr.cgi";
inline constexpr char kAdminProgram[] = "korvane";
inline constexpr int kAdminReadStepMs = 1000;   // each read of a request head
inline constexpr int kAdminHeadLimitMs = 30000;  // a head not complete by then ends the connection
inline constexpr int kAdminCmdMax = 999;         // the cmd query value is cut here
inline constexpr int kAdminIpMax = 100;          // ipnum is copied with this bound

// The head limit, normally kAdminHeadLimitMs; tests shorten it.
void mgr_set_head_limit_ms(int ms);

// Set once the page-level generators are registered.
extern std::atomic<int> added_web_callbacks;
// The list callbacks of the pages, by file and list id.
extern const WEB_CB_MAPPINGS default_mappings[];

// Thread body of one admin connection; its argument is the LINK. 0 on a TLS
// failure, a null channel or an unknown own address, else 1.
int mgr_main(void* x);
// Serves every complete request head in the input. Always 1.
int mgr_process(WINK* w);
// One request whose head starts at `bf`. Always 1; sets `closing`.
int mgr_request(WINK* w, char* bf, int* upto, int* nrest);
void mgr_add_web_callbacks();

// The refusal pages. 1, or 0 when a write failed.
int send_not_adminip(WINK* w);
int send_wait_for_timeout_message(WINK* w);
// The security lines every response head carries, each with its CR LF.
const char* admin_security_headers();

// Renders a page of the web directory with the pages' list callbacks.
int mgr_show(WINK* w, const char* fname);
// A static file under /web/: `name` is the path after "/web/". Nothing is sent
// for a name that could leave the web directory. 1 if sent.
int my_web_show_file(WINK* w, const char* name, const char* dir);
// 1 if `name` (percent-decoded) stays inside its directory: no "..", no
// leading slash or backslash, no NUL, no empty part.
int admin_safe_file_name(std::string_view name);

// Domains and classes as the pages see them, copied under the store's lock.
struct ADMIN_CLASS {
    std::string class_name;
    std::string type;
};
struct ADMIN_DOMAIN {
    std::string name;
    std::vector<ADMIN_CLASS> classes;
};
std::vector<ADMIN_DOMAIN> admin_domains();
// The domain name of `domainid` as the modules and log paths know it: its
// name, or "" for a domain without one (and for an index out of range).
std::string admin_domain_name(int domainid);
// The index in `domainid`, 0 when missing or out of range.
int admin_domain_index(const WINK* w);

// The domain tree (||domain_tree||) and the list of domains.
void mgr_do_domain_tree(WINK* w);
int mgr_cb_domains(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings, const char* filename);
int is_anon_class_in_this_domain(WINK* w);
int mgr_cmd_domain(WINK* w);  // settings_domain.cpp

// Status, log and graph.
void mgr_status(WINK* w);
std::string mgr_status_html();  // the sessions and totals of the status page
int mgr_cmd_status(WINK* w);
int mgr_cmd_log(WINK* w);
void mgr_log(WINK* w);
inline constexpr int kLogLinesDefault = 200;
inline constexpr int kLogLinesMax = 5000;
// The last `n` lines of `path` (at most kLogLinesMax), oldest first.
std::vector<std::string> admin_tail_lines(const char* path, int n);
int mgr_graph(WINK* w);
void mgr_do_graph(WINK* w);
struct TRAFFIC_MINUTE;
// The bytes per minute of `series` as an SVG bar chart (downloads and uploads).
std::string traffic_svg(const std::vector<TRAFFIC_MINUTE>& series);

// Server control.
int mgr_cmd_onoff(WINK* w);
int mgr_cmd_shutdown(WINK* w);
int mgr_cmd_stop(WINK* w);
int mgr_cmd_start(WINK* w);
int mgr_cmd_restart(WINK* w);

// Users of the selected domain's authentication module.
int mgr_cmd_user_admin(WINK* w);
int mgr_cmd_user_lookup(WINK* w);
int mgr_cmd_user_save(WINK* w, int create);
int mgr_cmd_user_delete(WINK* w);
int mgr_cmd_user_wild_search(WINK* w);
void mgr_do_user_list(WINK* w);

// Mailed reports: the page, add, delete, send now, and its two generators.
int mgr_cmd_report(WINK* w);
int mgr_cmd_report_add(WINK* w);
int mgr_cmd_report_remove(WINK* w);
int mgr_cmd_report_send(WINK* w);
std::string html_list_ereports();
void mgr_do_email_report_list(WINK* w);
void mgr_do_report_domain_options(WINK* w);

// Mirror jobs: the list, the editor and its buttons, the job's log.
int mgr_cb_mirrors(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings, const char* filename);
int mgr_cmd_mirrors(WINK* w);
int mgr_cmd_mirror_show(WINK* w);
int mgr_cmd_mirror_save(WINK* w);
int mgr_cmd_mirror_log(WINK* w);
int mgr_cmd_mirror_retry(WINK* w);
int mgr_cmd_mirror_delete(WINK* w);
void mgr_do_mirror_log(WINK* w);

// The diagnostic commands: 1 if `cmd` is one (acted on only under -debug).
int mgr_is_diag(std::string_view cmd);
int mgr_cmd_diag(WINK* w, std::string_view cmd);

}  // namespace korv
