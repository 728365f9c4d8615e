// One run of a mirror job: connect and log in (TLS with the remote's
// certificate checked), walk the remote directories, fetch what is new or
// changed into a temporary name and rename it into place with the remote
// date, trim what is gone, and report in the job's log and last_error.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "base/dirscan.h"
#include "base/files.h"
#include "base/fmt.h"
#include "base/wild.h"
#include "client/ftplib.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "net/tls.h"
#include "server/mirror/mirror.h"
#include "server/session/runstate.h"

namespace korv {

namespace {

std::atomic<int> timeout_ms{kFtpDefaultToutMs};
std::mutex current_mu;
ftplink* current_mirror_link = nullptr;  // the running job's link, for a stop from outside

struct FINFO {
    std::string fname;
    std::string xdate;
    int isdir = 0;
    int islink = 0;
    int donedir = 0;
    long long size = 0;
};

// One run: the live job (status only), its settings copied at the start, the link.
struct MirrorRun {
    MirrorPtr live;
    MIRROR cfg;
    ftplink* l = nullptr;
    int newfiles = 0;
    int totalfiles = 0;
    long long gotbytes = 0;
    int scanned = 0;
};

void status(MirrorRun& r, const std::string& text) { mirror_setlast(r.live.get(), text); }

int ftp_log(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string s = vstrfmt(format, ap);
    va_end(ap);
    dmsg("mirror: %s", s.c_str());
    return 1;
}

// The local directory for a remote directory.
std::string local_dir(const MirrorRun& r, const std::string& start_path) {
    if (r.cfg.use_full_path) return mirror_fixslash(strfmt("%s/%s", r.cfg.lcl.c_str(), start_path.c_str()));
    std::string rel = mirror_fixslash(start_path);
    remove_path(rel, mirror_fixslash(r.cfg.remote_path));
    return mirror_fixslash(strfmt("%s//%s", r.cfg.lcl.c_str(), rel.c_str()));
}

int mkdirs(const std::string& dir) {
    std::string at;
    size_t pos = 0;
    while (pos <= dir.size()) {
        size_t end = dir.find('/', pos);
        if (end == std::string::npos) end = dir.size();
        at = dir.substr(0, end);
        if (!at.empty() && !lib_stat_isdir(at.c_str()) && mkdir(at.c_str(), 0755) != 0 && errno != EEXIST) return 0;
        pos = end + 1;
    }
    return 1;
}

// Fetches one file into a temporary name beside its final name, dates it and
// renames it into place. 1, or 0 with the reason.
int fetch_one(MirrorRun& r, const std::string& rmt, const std::string& lclname, const FINFO& fi, time_t right_time,
              std::string& reason) {
    std::string dir, base;
    ftp_lib_path_split(lclname.c_str(), dir, base);
    std::string tmpl = strfmt("%s/.mirror-%s.XXXXXX", dir.c_str(), base.substr(0, 64).c_str());
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back(0);
    int fd = mkstemp(name.data());
    if (fd < 0) {
        reason = strfmt("Cannot make a temporary file in %.500s: %s", dir.c_str(), strerror(errno));
        return 0;
    }
    fchmod(fd, 0644);
    close(fd);
    const std::string tmp = name.data();
    r.l->max_bytes = fi.size + kMirrorSlackBytes;
    std::string why;
    int ok = ftp_get_link(r.l, rmt.c_str(), tmp.c_str(), 0, why);
    if (r.l->data) {
        mmsg(r.cfg.id, "ftp_get_link did not close data channel\n");
        ftp_release_port(r.l);
    }
    if (ok && r.l->bytes_in != fi.size) {
        ok = 0;
        why = strfmt("got %lld bytes, the listing said %lld", r.l->bytes_in, fi.size);
    }
    if (!ok) {
        unlink(tmp.c_str());
        reason = strfmt("Error getting file %s -> %s (%s)", rmt.c_str(), lclname.c_str(), why.c_str());
        status(r, strfmt("Failure: Getting file (%s) Retry next time", rmt.c_str()));
        mmsg(r.cfg.id, "get_link2 %s\n", reason.c_str());
        return 0;
    }
    if (!file_set_modified_time(tmp.c_str(), right_time)) {
        unlink(tmp.c_str());
        reason = strfmt("Could not set date time on file %s, %s. %d %d", lclname.c_str(), strerror(errno),
                        static_cast<int>(right_time), 0);
        status(r, strfmt("Failure: Setting timestamp local file (%s) Retry next time", lclname.c_str()));
        mmsg(r.cfg.id, "set_modified %s\n", reason.c_str());
        return 0;
    }
    if (rename(tmp.c_str(), lclname.c_str()) != 0) {
        reason = strfmt("Could not rename %s to %s: %s", tmp.c_str(), lclname.c_str(), strerror(errno));
        unlink(tmp.c_str());
        status(r, strfmt("Failure: Getting file (%s) Retry next time", rmt.c_str()));
        mmsg(r.cfg.id, "get_link2 %s\n", reason.c_str());
        return 0;
    }
    ++r.newfiles;
    r.gotbytes += fi.size;
    return 1;
}

void trim_dir(MirrorRun& r, const std::string& ldir, const std::vector<FINFO>& list) {
    WildHandlePtr h;
    WILD_DATA d;
    const std::string pattern = mirror_fixslash(strfmt("/%s/*", ldir.c_str()));
    for (int more = wild_first(h, pattern.c_str(), &d); more; more = wild_next(h.get(), &d)) {
        if (d.isdir || d.islink || d.issub || !d.isnorm) continue;
        if (d.name.rfind(".mirror-", 0) == 0) continue;  // another fetch's temporary file
        bool listed = false;
        for (const FINFO& f : list)
            if (!f.isdir && !f.islink && f.fname == d.name) listed = true;
        if (listed) continue;
        const std::string full = mirror_fixslash(strfmt("%s/%s", ldir.c_str(), d.name.c_str()));
        mmsg(r.cfg.id, "remove this file? %s\n", full.c_str());
        if (full.find("ftp") == std::string::npos) {
            mmsg(r.cfg.id, "Trim will only remove files that contain  'ftp' somewhere in the path\n");
            continue;
        }
        if (!mirror_inside(r.cfg.lcl, full)) continue;
        if (remove(full.c_str()) != 0) mmsg(r.cfg.id, "Remove failed (%s) %s\n", full.c_str(), strerror(errno));
    }
    wild_end(h);
}

int mirror_update(MirrorRun& r, const std::string& start_path, std::string& reason, int depth) {
    if (depth > kMirrorDepthMax) {
        reason = strfmt("Directories nest deeper than %d levels at %.500s", kMirrorDepthMax, start_path.c_str());
        status(r, reason);
        return 0;
    }
    status(r, strfmt("Working: Scanning directory %s\nScanned %d files", start_path.c_str(), r.scanned));
    mmsg(r.cfg.id, "Send LIST %.500s\n", start_path.c_str());
    WordlistPtr words;
    if (!ftp_setup_data_port_link(r.l, reason, "LIST", start_path.c_str())) {
        ftp_release_port(r.l);
        mmsg(r.cfg.id, "ftp_setup_data_port failed %s\n", reason.c_str());
        status(r, reason);
        return 0;
    }
    if (!ftp_link_list_wordlist(r.l, "LIST", start_path.c_str(), words, reason)) {
        ftp_release_port(r.l);
        mmsg(r.cfg.id, "ftp_link_list failed %s\n", reason.c_str());
        status(r, reason);
        return 0;
    }
    status(r, strfmt("Working: Scanning LIST\nScanned %d files", r.scanned));
    std::vector<FINFO> list;
    for (const Wordlist* w = words.get(); w != nullptr; w = w->next.get()) {
        FINFO fi;
        if (w->word.find('\0') != std::string::npos) {
            mmsg(r.cfg.id, "Skipped a listing line holding a NUL\n");
            continue;
        }
        if (!mirror_decode(w->word.c_str(), fi.fname, fi.xdate, &fi.size, &fi.isdir, &fi.islink)) continue;
        if (fi.fname == "." || fi.fname == "..") continue;
        if (fi.islink) continue;  // neither fetched nor entered
        if (!mirror_name_ok(fi.fname)) {
            std::string shown = fi.fname.substr(0, 100);
            for (char& c : shown)
                if (c == 0) c = '?';
            mmsg(r.cfg.id, "Skipped a remote name that cannot be a local name (%s)\n", shown.c_str());
            continue;
        }
        if (!fi.isdir && !lib_match_list(r.cfg.files.c_str(), fi.fname.c_str())) continue;
        ++r.scanned;
        list.push_back(std::move(fi));
    }
    words.reset();
    status(r, strfmt("Working: Looking for new/updated files\nScanned %d files", r.scanned));
    const std::string ldir = local_dir(r, start_path);
    for (const FINFO& fi : list) {
        if (fi.isdir || fi.islink) continue;
        ++r.totalfiles;
        const std::string lclname = mirror_fixslash(strfmt("%s/%s", ldir.c_str(), fi.fname.c_str()));
        if (!mirror_inside(r.cfg.lcl, lclname)) {
            reason = strfmt("Local name %.500s leaves %.500s", lclname.c_str(), r.cfg.lcl.c_str());
            status(r, reason);
            mmsg(r.cfg.id, "%s\n", reason.c_str());
            return 0;
        }
        time_t right_time = date_to_time(fi.xdate.c_str());
        mmsg(r.cfg.id, "right_time %d (%s)\n", static_cast<int>(right_time), fi.xdate.c_str());
        struct stat st{};
        const bool exists = lstat(lclname.c_str(), &st) == 0 && S_ISREG(st.st_mode);
        if (right_time < 1) right_time = exists ? st.st_mtime : 0;
        if (right_time < 1) right_time = time(nullptr);
        if (exists && st.st_mtime == right_time && st.st_size == fi.size) continue;
        const std::string rmt = mirror_fixslash(strfmt("%s/%s", start_path.c_str(), fi.fname.c_str()));
        if (!mkdirs(ldir)) {
            reason = strfmt("Cannot make directory %.500s: %s", ldir.c_str(), strerror(errno));
            status(r, reason);
            mmsg(r.cfg.id, "%s\n", reason.c_str());
            return 0;
        }
        mmsg(r.cfg.id, "Mirroring Remote File (%s) -> local (%s)\n", rmt.c_str(), lclname.c_str());
        if (exists) mmsg(r.cfg.id, "Mirroring File date (%d) \n", static_cast<int>(st.st_mtime));
        status(r, strfmt("Working: Getting File (%s)\nScanned %d files", rmt.c_str(), r.scanned));
        if (!fetch_one(r, rmt, lclname, fi, right_time, reason)) return 0;
        if (exit_due_to_shutdown_now.load()) {
            reason = "Stopped by the server's shutdown";
            return 0;
        }
    }
    status(r, strfmt("Working: Scan Directory Complete\nScanned %d files", r.scanned));
    if (r.cfg.trim && lib_stat_isdir(ldir.c_str())) trim_dir(r, ldir, list);
    if (r.cfg.subdir) {
        mmsg(r.cfg.id, "Checking for any sub directories\n");
        for (FINFO& fi : list) {
            if (!fi.isdir || fi.donedir) continue;
            fi.donedir = 1;
            mmsg(r.cfg.id, "Scanning subdir (%s)\n", fi.fname.c_str());
            const std::string sub = mirror_fixslash(strfmt("/%s/%s", start_path.c_str(), fi.fname.c_str()));
            if (!mirror_update(r, sub, reason, depth + 1)) {
                mmsg(r.cfg.id, "Mirror_update failed (%s)\n", reason.c_str());
                return 0;
            }
        }
        mmsg(r.cfg.id, "Checking for any sub directories - finished\n");
    }
    return 1;
}

}  // namespace

void mirror_set_timeout_ms(int ms) { timeout_ms.store(ms); }

void mirror_hurry() {
    std::lock_guard<std::mutex> g(current_mu);
    if (current_mirror_link != nullptr) current_mirror_link->hurry_exit.store(1);
}

int mirror_check(const MirrorPtr& m) {
    const auto started = std::chrono::steady_clock::now();
    MirrorRun r;
    r.live = m;
    {
        MutexHold hold(MUTEX_MIRROR);
        r.cfg = *m;
        m->tlast = time(nullptr);
        m->last_error = "Connecting...";
    }
    const MIRROR& c = r.cfg;
    mmsg(c.id, "Checking site (%.500s %.500s) (%.500s) user=%.500s %s %s \n", c.remote_host.c_str(),
         c.remote_path.c_str(), c.files.c_str(), c.user.c_str(), c.trim ? "trim" : "notrim",
         c.subdir ? "subdir" : "nosubdir");
    ftp_setdebug(ftp_log);
    mmsg(c.id, "Connecting to remote site (%s)\n", c.remote_host.c_str());
    std::unique_ptr<ftplink, FtpLinkFree> link;
    {
        ftplink* raw = nullptr;
        ftp_new(&raw);
        link.reset(raw);
    }
    ftplink* l = link.get();
    l->isssl = c.mirror_ssl;
    l->ca_file = mirror_dir_file("rootCA.pem");
    ftp_set_timeout(l, timeout_ms.load());
    ftp_link_set(l, c.remote_host.c_str(), c.user.c_str(), c.pass.c_str());
    std::string reason;
    int ok = 0;
    if (!ftp_open_link(l, reason)) {
        mmsg(c.id, "Couldn't connect, %s\n", reason.c_str());
    } else if (!ftp_login_link(l, reason)) {
        mmsg(c.id, "Couldn't logon, %s\n", reason.c_str());
    } else {
        if (c.mirror_ssl) {
            if (tcp_isthis_ssl(l->cmd.get()))
                mmsg(c.id, "Connected with secure protocol (%s)\n", tcp_get_ssl_protocol_name_used(l->cmd.get()));
            else
                mmsg(c.id, "Connected without SSL\n");
        }
        {
            std::lock_guard<std::mutex> g(current_mu);
            current_mirror_link = l;
        }
        r.l = l;
        ok = mirror_update(r, c.remote_path, reason, 0);
        {
            std::lock_guard<std::mutex> g(current_mu);
            current_mirror_link = nullptr;
        }
    }
    if (ok) {
        std::string text = strfmt("Successful, Downloaded %d files %lld bytes. \nTotal %d files local\n", r.newfiles,
                                  r.gotbytes, r.totalfiles);
        mmsg(c.id, "%s", text.c_str());
        text.pop_back();
        mirror_setlast(m.get(), text);
    } else {
        mmsg(c.id, "Update failed %.500s\n", reason.c_str());
        mirror_setlast(m.get(), reason);
    }
    if (l->cmd && ok) {
        ftp_printf(l, "QUIT\r\n");
    }
    // Benchmarks read this; the log's own stamps have whole seconds.
    mmsg(c.id, "Run time %.3f seconds\n",
         std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    return ok;
}

}  // namespace korv
