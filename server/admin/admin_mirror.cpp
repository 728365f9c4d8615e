// The mirror pages: the job list with state, last and next run; the job
// editor (save, run now, delete); the job's log. Jobs are read as copies and
// changed through the mirror engine, under its lock. A value that mirrors.dat
// cannot carry (a bar, a double quote, a line end, a NUL) is refused and
// nothing is written; the stored password never goes back into a page.
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/webtext.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/mirror/mirror.h"

namespace korv {

namespace {

constexpr int kMirrorLogLines = 500;
constexpr int kXdelayMax = 525600;  // a year of minutes

std::string when(time_t t) {
    char bf[32] = {};
    const char* s = safe_ctime(&t, bf);
    std::string out = s != nullptr ? s : "";
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

// The variables of one job, for a list row or the editor.
void job_vars(WINK* w, const MIRROR& m) {
    web_var_add(w, "mid", std::to_string(m.id));
    web_var_add(w, "remote_host", m.remote_host);
    web_var_add(w, "remote_path", m.remote_path);
    web_var_add(w, "files", m.files);
    web_var_add(w, "lcl", m.lcl);
    web_var_add(w, "xdelay", std::to_string(m.xdelay));
    web_var_add(w, "user", m.user);
    web_var_add(w, "pass", "");
    web_var_true(w, "subdir_checked", m.subdir);
    web_var_true(w, "trim_checked", m.trim);
    web_var_true(w, "use_full_path_checked", m.use_full_path);
    web_var_true(w, "mirror_ssl_checked", m.mirror_ssl);
    web_var_add(w, "last_error", m.last_error);
    web_var_add(w, "last_run", m.tlast == 0 ? std::string("Queued/Working") : when(m.tlast));
    web_var_add(w, "next_run", m.tlast == 0 ? std::string("Soon") : when(m.tlast + static_cast<time_t>(m.xdelay) * 60));
}

int wanted_mid(const WINK* w) { return atoi(web_input(w, "mid").c_str()); }

int show_job(WINK* w) { return mgr_show(w, "mirror.htm"); }
int show_list(WINK* w) { return mgr_show(w, "mirrors.htm"); }

// The form as a job; "" when it may be saved, else why not.
std::string form_job(const WINK* w, MIRROR& m) {
    const int mid = wanted_mid(w);
    MIRROR old = mirror_find(mid);
    m = old;
    if (mid <= 0) m.id = 0;
    const char* texts[] = {"remote_host", "remote_path", "files", "lcl", "user", "pass", "xdelay"};
    for (const char* f : texts) {
        const std::string v = web_input(w, f);
        if (!web_value_safe(v) || v.find('|') != std::string::npos)
            return strfmt("The field %s holds a bar, a double quote, a line end or a NUL; nothing was written.", f);
        if (v.size() > static_cast<size_t>(kMirrorFieldMax))
            return strfmt("The field %s is longer than %d characters; nothing was written.", f, kMirrorFieldMax);
    }
    m.remote_host = web_input(w, "remote_host");
    m.remote_path = web_input(w, "remote_path");
    m.files = web_input(w, "files");
    m.lcl = web_input(w, "lcl");
    m.user = web_input(w, "user");
    // An empty password keeps the stored one: the page never shows it.
    if (const std::string p = web_input(w, "pass"); !p.empty()) m.pass = p;
    m.subdir = web_input(w, "subdir") == "TRUE";
    m.trim = web_input(w, "trim") == "TRUE";
    m.use_full_path = web_input(w, "use_full_path") == "TRUE";
    m.mirror_ssl = web_input(w, "mirror_ssl") == "TRUE";
    const std::string xd = web_input(w, "xdelay");
    char* end = nullptr;
    long d = strtol(xd.c_str(), &end, 10);
    if (xd.empty() || *end != 0 || d < 0 || d > kXdelayMax)
        return strfmt("Every (minutes) must be a whole number from 0 to %d.", kXdelayMax);
    m.xdelay = static_cast<int>(d);
    if (m.remote_host.empty()) return "A remote host is needed.";
    if (m.lcl.empty() || m.lcl[0] != '/') return "The local directory must be an absolute path.";
    if (m.lcl == "/") return "The local directory may not be the root directory.";
    return "";
}

}  // namespace

int mgr_cb_mirrors(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    std::vector<MIRROR> jobs;
    if (std::string(filename != nullptr ? filename : "").find("mirrors.htm") != std::string::npos) {
        jobs = mirror_list();
    } else {
        // The editor: the job of `mid`, or a new one; a refused form shows what was typed.
        MIRROR m = mirror_find(wanted_mid(w));
        jobs.push_back(m);
    }
    for (const MIRROR& m : jobs) {
        job_vars(w, m);
        if (!web_show_line(w, unit, mappings, filename)) return 0;
    }
    return 1;
}

int mgr_cmd_mirrors(WINK* w) { return show_list(w); }

int mgr_cmd_mirror_show(WINK* w) { return show_job(w); }

int mgr_cmd_mirror_save(WINK* w) {
    MIRROR m;
    std::string why = form_job(w, m);
    if (!why.empty()) {
        web_var_add(w, "mirror_error", why);
        return show_job(w);
    }
    const int id = mirror_store(m);
    w->query.reset();
    pair_add(w->query, "mid", std::to_string(id));
    if (mirror_write())
        web_var_add(w, "mirror_message", strfmt("Saved job %d; it runs within a few seconds.", id));
    else
        web_var_add(w, "mirror_error", "The job is saved in the running server, but mirrors.dat could not be written.");
    return show_job(w);
}

int mgr_cmd_mirror_retry(WINK* w) {
    if (mirror_retry(wanted_mid(w)))
        web_var_add(w, "mirror_message", "Queued to run within a few seconds.");
    else
        web_var_add(w, "mirror_error", "Save the job first.");
    return show_job(w);
}

int mgr_cmd_mirror_delete(WINK* w) {
    const int mid = wanted_mid(w);
    if (mirror_delete(mid)) mirror_write();
    return show_list(w);
}

int mgr_cmd_mirror_log(WINK* w) {
    web_var_add(w, "mid", std::to_string(wanted_mid(w)));
    return mgr_show(w, "mirror_log.htm");
}

void mgr_do_mirror_log(WINK* w) {
    const int mid = wanted_mid(w);
    const std::string path = mirror_idfile(mid, ".log");
    std::vector<std::string> lines = admin_tail_lines(path.c_str(), kMirrorLogLines);
    std::string h = strfmt("<h2>Job %d</h2>\n<p class=\"muted\">%s, the last %d lines at most.</p>\n", mid,
                           web_encode(path).c_str(), kMirrorLogLines);
    if (lines.empty()) {
        h += "<p class=\"msg\">This job has no log yet.</p>\n";
    } else {
        h += "<pre>";
        for (const std::string& line : lines) h += web_encode(line) + "\n";
        h += "</pre>\n";
    }
    strfmt_append(h, "<p><a href=\"%s?cmd=mirror&amp;mid=%d\">Back to job %d</a></p>\n", kAdminCgi, mid, mid);
    web_out(w, h);
}

}  // namespace korv
