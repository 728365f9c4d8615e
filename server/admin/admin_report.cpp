// The reports page: the list of mailed reports with one choice per report,
// the form that adds one, delete, and "send now", which mails the chosen
// report at once over its last period so that the relay can be tried. Every
// value of a new report is refused whole when it holds a double quote, a line
// end or a NUL.
#include "base/fmt.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/admin/webio.h"
#include "server/report/ereport.h"

namespace korv {

namespace {

void say(WINK* w, const std::string& text) { web_var_add(w, "report_message", text); }
void fail(WINK* w, const std::string& text) { web_var_add(w, "report_error", text); }

int chosen(const WINK* w) {
    const std::string v = web_input(w, "ereport");
    if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos || v.size() > 6) return -1;
    return atoi(v.c_str());
}

void emit(WINK* w, const std::string& h) { web_out(w, h); }

}  // namespace

std::string html_list_ereports() {
    std::vector<EmailReportGenerator> all = ereport_snapshot();
    if (all.empty()) return "<p class=\"muted\">No mailed reports yet.</p>\n";
    std::string h = "<table class=\"grid\">\n<tr><th></th><th>Report</th><th>At</th><th>Status</th></tr>\n";
    for (size_t i = 0; i < all.size(); ++i) {
        const EmailReportGenerator& r = all[i];
        std::string text;
        for (const StructureProperties* p = email_report; p->more; ++p) {
            if (*p->frmt_4_html == 0) continue;
            if (p->element_type == kElemString) {
                // The format is ours; the value comes from a person.
                std::string fmt = p->frmt_4_html;
                size_t at = fmt.find("%s");
                if (at == std::string::npos) continue;
                text += fmt.substr(0, at) + web_encode(r.charptrs[p->index]) + fmt.substr(at + 2);
            } else if (p->element_type == kElemBool && r.bools[p->index]) {
                text += p->frmt_4_html;
            }
        }
        strfmt_append(h,
                      "<tr><td><input type=\"radio\" name=\"ereport\" value=\"%zu\" id=\"ereport%zu\"%s "
                      "aria-label=\"Report %zu\"></td><td><label for=\"ereport%zu\">%s</label></td>"
                      "<td class=\"num\">%02d:%02d</td><td>%s</td></tr>\n",
                      i, i, i == 0 ? " checked" : "", i + 1, i, text.c_str(), get_int(&r, "when_hr"),
                      get_int(&r, "when_min"), web_encode(r.status).c_str());
    }
    h += "</table>\n";
    return h;
}

void mgr_do_email_report_list(WINK* w) { emit(w, html_list_ereports()); }

void mgr_do_report_domain_options(WINK* w) {
    std::string h;
    std::vector<ADMIN_DOMAIN> ds = admin_domains();
    for (size_t i = 0; i < ds.size(); ++i) {
        const std::string name = ds[i].name.empty() ? std::string("default") : ds[i].name;
        strfmt_append(h, "<option value=\"%s\">%s</option>\n", web_encode(ds[i].name).c_str(),
                      web_encode(name).c_str());
    }
    emit(w, h);
}

int mgr_cmd_report(WINK* w) { return mgr_show(w, "report.htm"); }

int mgr_cmd_report_add(WINK* w) {
    std::string reason;
    if (add_email_report_settings([w](const char* key) { return web_input(w, key); }, reason))
        say(w, strfmt("Report added: it goes to %s.", web_input(w, "email").c_str()));
    else
        fail(w, reason);
    return mgr_cmd_report(w);
}

int mgr_cmd_report_remove(WINK* w) {
    if (remove_email_report_settings(chosen(w)))
        say(w, "Report deleted.");
    else
        fail(w, "Choose a report to delete.");
    return mgr_cmd_report(w);
}

int mgr_cmd_report_send(WINK* w) {
    std::string reason;
    const int which = chosen(w);
    if (which < 0)
        fail(w, "Choose a report to send.");
    else if (ereport_run_now(which, reason))
        say(w, "Report sent to the mail relay.");
    else
        fail(w, strfmt("The report was not sent: %s", reason.c_str()));
    return mgr_cmd_report(w);
}

}  // namespace korv
