// The log page: a domain and one of its logs (the main log, commands,
// logins, transfers) and the last lines of it, each shown as text (||do_log||).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/ftp/plog.h"
#include "server/process/control.h"
#include "server/settings/ini.h"

namespace korv {

namespace {

constexpr size_t kTailChunk = 64 * 1024;
constexpr off_t kTailReadMax = 16 * 1024 * 1024;  // never more than this is read back

struct LogKind {
    const char* id;     // the value of the form input `logfile`
    const char* title;
    const char* file;   // in the domain's log directory; null for the main log
};

const LogKind kLogs[] = {
    {"main", "Main log", nullptr},
    {"cmds", "Commands", "cmds.log"},
    {"login", "Logins", "login.log"},
    {"xfer", "Transfers", "xfer.log"},
};

const LogKind& chosen_log(const WINK* w) {
    std::string id = web_input(w, "logfile");
    for (const LogKind& k : kLogs)
        if (id == k.id) return k;
    return kLogs[0];
}

int chosen_lines(const WINK* w) {
    std::string v = web_input(w, "lines");
    if (v.empty()) return kLogLinesDefault;
    int n = atoi(v.c_str());
    if (n < 1) return 1;
    return n > kLogLinesMax ? kLogLinesMax : n;
}

std::string log_path(const LogKind& k, int domainid) {
    std::string path;
    if (k.file == nullptr) {
        get_log_file_path(path, strfmt("%.500s/%.200s", korv_home(), bin_file(".log").c_str()).c_str());
        return path;
    }
    std::string name = admin_domain_name(domainid);
    name = name.empty() ? std::string("default") : str_lower(name);
    ini_domain_log_file(path, name.c_str(), k.file);
    return path;
}

struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

}  // namespace

std::vector<std::string> admin_tail_lines(const char* path, int n) {
    std::vector<std::string> out;
    if (n > kLogLinesMax) n = kLogLinesMax;
    if (n < 1) return out;
    Fd f{open(path, O_RDONLY | O_CLOEXEC)};
    struct stat st {};
    if (f.fd < 0 || fstat(f.fd, &st) != 0) return out;
    // Read back from the end until n line ends are held (one more than n
    // when the file ends with one), or the bound is reached.
    std::string held;
    off_t pos = st.st_size;
    size_t ends = 0;
    const size_t want = static_cast<size_t>(n) + 1;
    while (pos > 0 && ends < want && st.st_size - pos < kTailReadMax) {
        size_t step = pos >= static_cast<off_t>(kTailChunk) ? kTailChunk : static_cast<size_t>(pos);
        pos -= static_cast<off_t>(step);
        std::string chunk(step, '\0');
        ssize_t got = pread(f.fd, chunk.data(), step, pos);
        if (got <= 0) break;
        chunk.resize(static_cast<size_t>(got));
        for (char ch : chunk)
            if (ch == '\n') ++ends;
        held.insert(0, chunk);
    }
    if (held.empty()) return out;
    size_t end = held.size();
    if (held[end - 1] == '\n') --end;
    for (;;) {
        size_t nl = end == 0 ? std::string::npos : held.rfind('\n', end - 1);
        // A first line cut by the read bound is left out.
        if (nl == std::string::npos && pos > 0) break;
        size_t from = nl == std::string::npos ? 0 : nl + 1;
        std::string line = held.substr(from, end - from);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        out.push_back(std::move(line));
        if (nl == std::string::npos || out.size() >= static_cast<size_t>(n)) break;
        end = nl;
    }
    return {out.rbegin(), out.rend()};
}

int mgr_cmd_log(WINK* w) {
    const LogKind& k = chosen_log(w);
    web_var_add(w, "log_lines", std::to_string(chosen_lines(w)));
    web_var_add(w, "log_lines_max", std::to_string(kLogLinesMax));
    for (const LogKind& x : kLogs) web_var_add(w, strfmt("logfile_%s_selected", x.id), &x == &k ? "selected" : "");
    return mgr_show(w, "log.htm");
}

void mgr_log(WINK* w) {
    const LogKind& k = chosen_log(w);
    const int domainid = admin_domain_index(w);
    const int n = chosen_lines(w);
    // What the logs hold in memory goes to their files first.
    if (k.file == nullptr)
        emsg_flush();
    else
        plog_flush_all();
    std::string path = log_path(k, domainid);
    std::vector<std::string> lines = admin_tail_lines(path.c_str(), n);
    std::string h;
    strfmt_append(h, "<h2>%s</h2>\n<p class=\"muted\">%s, the last %d lines at most.</p>\n", k.title,
                  web_encode(path).c_str(), n);
    if (lines.empty()) {
        h += "<p class=\"msg\">This log is empty or does not exist yet.</p>\n";
    } else {
        h += "<pre>";
        for (const std::string& line : lines) {
            h += web_encode(line);
            h += '\n';
        }
        h += "</pre>\n";
    }
    web_out(w, h);
}

}  // namespace korv
