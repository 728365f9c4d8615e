// The job list and mirrors.dat, the per-job logs, and the mirror thread with
// its five-second cycle. Jobs are shared pointers under the MIRROR lock: a
// deleted job leaves the list at once and is freed when the last run using it
// lets go.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "base/dates.h"
#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "server/mirror/mirror.h"
#include "server/session/runstate.h"
#include "server/session/threadlist.h"

namespace korv {

namespace {

std::vector<MirrorPtr> mlist;      // head first; under MUTEX_MIRROR
std::vector<MirrorPtr> mlist_del;  // deleted jobs, kept until mirror_free_all
std::string mmfile = kMirrorFile;  // under MUTEX_MIRROR
std::string mdir;                  // under MUTEX_MIRROR

// The thread's wake-up and stop: a condition variable, so that a retry from
// the pages starts the job at once and a stop is seen at once.
std::mutex wake_mu;
std::condition_variable wake_cv;
bool wake_flag = false;
std::atomic<int> generation{0};  // a thread of an older generation leaves
std::atomic<int> running{0};     // threads inside mirror_thread

void wake() {
    std::lock_guard<std::mutex> g(wake_mu);
    wake_flag = true;
    wake_cv.notify_all();
}

int next_id_locked() {
    int top = 0;
    for (const MirrorPtr& m : mlist) top = std::max(top, m->id);
    return top + 1;
}

MirrorPtr find_locked(int mid) {
    for (const MirrorPtr& m : mlist)
        if (m->id == mid) return m;
    return nullptr;
}

int mirror_thread(void* p) {
    const int gen = static_cast<int>(reinterpret_cast<intptr_t>(p));
    running.fetch_add(1);
    imsg("mirror: thread started\n");
    auto stopping = [gen] { return exit_due_to_shutdown_now.load() != 0 || generation.load() != gen; };
    while (!stopping()) {
        mirror_idle();
        // Nobody signals the server's shutdown to this thread, so the cycle's
        // wait is taken in short slices: a stopping server never waits for it.
        std::unique_lock<std::mutex> g(wake_mu);
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kMirrorCycleMs);
        while (!wake_flag && !stopping() && std::chrono::steady_clock::now() < until)
            wake_cv.wait_for(g, std::chrono::milliseconds(kMirrorStopSliceMs));
        wake_flag = false;
    }
    imsg("mirror: thread exiting\n");
    running.fetch_sub(1);
    return 0;
}

}  // namespace

void mirror_set_dir(std::string_view dir) {
    MutexHold hold(MUTEX_MIRROR);
    mdir = std::string(dir);
}

std::string mirror_dir_file(std::string_view name) {
    MutexHold hold(MUTEX_MIRROR);
    if (mdir.empty() || (!name.empty() && name[0] == '/')) return std::string(name);
    return mdir + "/" + std::string(name);
}

std::string mirror_idfile(int id, const char* ext) { return mirror_dir_file(strfmt("mirror_%d%.500s", id, ext)); }

void mmsg(int id, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    if (text.size() > 1000) text.resize(1000);
    imsg("mirror: %.500s", text.c_str());
    if (!text.empty() && text.back() != '\n') text += '\n';
    const std::string path = mirror_idfile(id, ".log");
    FILE* f = fopen(path.c_str(), "a");
    if (f == nullptr) {
        imsg("mirror: Unable to open (%.500s) %.500s\n", path.c_str(), strerror(errno));
        return;
    }
    fprintf(f, "%.500s %.500s", lib_emsg_time().c_str(), text.c_str());
    fclose(f);
}

MirrorPtr mirror_add(int id, const char* remote_host, const char* remote_path, const char* files, const char* lcl,
                     const char* subdir, const char* trim, int xdelay, const char* user, const char* pass,
                     const char* use_full_path, const char* mirror_ssl) {
    auto s = [](const char* v) { return std::string(v != nullptr ? v : ""); };
    auto yes = [](const char* v) { return v != nullptr && strcasecmp(v, "TRUE") == 0 ? 1 : 0; };
    auto m = std::make_shared<MIRROR>();
    m->id = id;
    m->remote_host = s(remote_host);
    m->remote_path = s(remote_path);
    m->files = s(files);
    m->lcl = s(lcl);
    m->subdir = yes(subdir);
    m->trim = yes(trim);
    m->xdelay = xdelay;
    m->user = s(user);
    m->pass = s(pass);
    m->use_full_path = use_full_path != nullptr && strcasecmp(use_full_path, "false") == 0 ? 0 : 1;
    m->mirror_ssl = yes(mirror_ssl);
    m->tlast = 0;
    m->last_error = "Queued...";
    MutexHold hold(MUTEX_MIRROR);
    mlist.insert(mlist.begin(), m);
    return m;
}

MIRROR mirror_find(int mid, int* isnew) {
    MutexHold hold(MUTEX_MIRROR);
    if (MirrorPtr m = find_locked(mid)) {
        if (isnew != nullptr) *isnew = 0;
        return *m;
    }
    if (isnew != nullptr) *isnew = 1;
    MIRROR m;
    m.id = next_id_locked();
    m.remote_host = "rmthost";
    m.remote_path = "remotepath";
    m.files = "files";
    m.lcl = "lcl";
    m.subdir = 0;
    m.trim = 0;
    m.xdelay = 23;
    m.user = "anonymous";
    m.pass = "anon";
    m.use_full_path = 1;
    m.mirror_ssl = 1;
    m.last_error = "Not saved yet";
    return m;
}

std::vector<MIRROR> mirror_list() {
    MutexHold hold(MUTEX_MIRROR);
    std::vector<MIRROR> out;
    for (const MirrorPtr& m : mlist) out.push_back(*m);
    return out;
}

int mirror_store(const MIRROR& in) {
    int id = 0;
    {
        MutexHold hold(MUTEX_MIRROR);
        MirrorPtr m = in.id > 0 ? find_locked(in.id) : nullptr;
        if (!m) {
            m = std::make_shared<MIRROR>();
            m->id = in.id > 0 ? in.id : next_id_locked();
            mlist.insert(mlist.begin(), m);
        }
        // Fresh strings, assigned under the lock: a running job reads its own copy.
        m->remote_host = in.remote_host;
        m->remote_path = in.remote_path;
        m->files = in.files;
        m->lcl = in.lcl;
        m->subdir = in.subdir;
        m->trim = in.trim;
        m->xdelay = in.xdelay;
        m->user = in.user;
        m->pass = in.pass;
        m->use_full_path = in.use_full_path;
        m->mirror_ssl = in.mirror_ssl;
        m->tlast = 0;
        m->last_error = "Queued to start.\n";
        id = m->id;
    }
    wake();
    return id;
}

int mirror_delete(int mid) {
    MutexHold hold(MUTEX_MIRROR);
    for (auto it = mlist.begin(); it != mlist.end(); ++it) {
        if ((*it)->id != mid) continue;
        (*it)->isdel = 1;
        mlist_del.push_back(*it);
        mlist.erase(it);
        return 1;
    }
    return 0;
}

int mirror_retry(int mid) {
    {
        MutexHold hold(MUTEX_MIRROR);
        MirrorPtr m = find_locked(mid);
        if (!m) return 0;
        m->tlast = 0;
        m->last_error = "Queued to start.\n";
    }
    wake();
    return 1;
}

void mirror_setlast(MIRROR* m, const std::string& reason) {
    MutexHold hold(MUTEX_MIRROR);
    m->last_error = reason;
}

int mirror_write() {
    std::string text, path;
    {
        MutexHold hold(MUTEX_MIRROR);
        path = mdir.empty() || mmfile[0] == '/' ? mmfile : mdir + "/" + mmfile;
        // Written tail first, so that the load, which adds at the head, keeps the order.
        for (auto it = mlist.rbegin(); it != mlist.rend(); ++it)
            if (!(*it)->isdel) text += mirror_format_line(**it);
    }
    // It holds passwords: a private new file, renamed over the old.
    const std::string tmp = path + ".new";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok = fd >= 0 && fchmod(fd, 0600) == 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    int err = errno;
    if (fd >= 0 && close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && rename(tmp.c_str(), path.c_str()) != 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        unlink(tmp.c_str());
        emsg("Could not write (%.500s) %.500s\n", path.c_str(), strerror(err));
        return 0;
    }
    return 1;
}

int mirror_load(const char* file) {
    std::vector<MirrorPtr> loaded;
    std::string path;
    {
        MutexHold hold(MUTEX_MIRROR);
        mmfile = file != nullptr && *file ? std::string(file).substr(0, 100) : std::string(kMirrorFile);
        path = mdir.empty() || mmfile[0] == '/' ? mmfile : mdir + "/" + mmfile;
    }
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        MIRROR m;
        if (mirror_parse_line(line, m)) loaded.insert(loaded.begin(), std::make_shared<MIRROR>(m));
    }
    MutexHold hold(MUTEX_MIRROR);
    mlist = std::move(loaded);
    return static_cast<int>(mlist.size());
}

int mirror_init(const char* file) {
    mirror_load(file);
    const int gen = generation.fetch_add(1) + 1;
    if (!main_new_reuse_thread(mirror_thread, nullptr, reinterpret_cast<void*>(static_cast<intptr_t>(gen)),
                               THREAD_ID_MIRROR_PROCESS)) {
        emsg("mirror: could not start the mirror thread\n");
        return 0;
    }
    return 1;
}

void mirror_free_all() {
    generation.fetch_add(1);
    mirror_hurry();
    wake();
    // A job in a transfer ends at its next read; the wait is bounded all the same.
    for (int i = 0; i < 100 && running.load() > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    MutexHold hold(MUTEX_MIRROR);
    mlist.clear();
    mlist_del.clear();
}

void mirror_idle() {
    std::vector<MirrorPtr> jobs;
    {
        MutexHold hold(MUTEX_MIRROR);
        jobs = mlist;
    }
    // Jobs from the tail: the oldest first.
    for (auto it = jobs.rbegin(); it != jobs.rend(); ++it) {
        bool due = false;
        {
            MutexHold hold(MUTEX_MIRROR);
            due = !(*it)->isdel && (*it)->tlast + static_cast<time_t>((*it)->xdelay) * 60 < time(nullptr);
        }
        if (due) mirror_check(*it);
        if (exit_due_to_shutdown_now.load()) return;
    }
}

}  // namespace korv
