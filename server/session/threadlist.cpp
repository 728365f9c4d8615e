// The thread registry and its session counters, the count of FTP sessions in
// progress, and the accounting wrapper of pooled threads.
#include "server/session/threadlist.h"

#include <unistd.h>

#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "common/emsg.h"
#include "common/mutex.h"
#include "net/tls.h"
#include "server/session/link.h"
#include "server/session/runstate.h"

namespace korv {

const char* const THREAD_ID_STRING_CHANNEL_OPENING = "Channel Opening";
const char* const THREAD_ID_STRING_FTP = "FTP";
const char* const THREAD_ID_STRING_ANONFTP = "Anonymous FTP";
const char* const THREAD_ID_STRING_WEB_ADMIN = "Web Admin";
const char* const THREAD_ID_STRING_WEB_IMAGE = "Web Image";
const char* const THREAD_ID_MAIN_PROCESS = "Main Process Accepting Connections";
const char* const THREAD_ID_MIRROR_PROCESS = "Mirror Process";
const char* const THREAD_ID_REPORT_PROCESS = "Email Report Process";
const char* const THREAD_ID_FTP_CHANNEL_HANDLER = "FTP Channel Acceptor";
const char* const THREAD_ID_IDLE_THREAD = "Idle Thread";
const char* const THREAD_ID_SELF_DIAGNOSTIC = "Self Diagnostic Thread";

namespace {

constexpr int kKillAllWaitSeconds = 5;  // sessions get this long to leave at shutdown

THREADLIST* tlist = nullptr;

long Unique_Session_NONID = 0;
long Unique_Session_FTPID = 0;
long Unique_Session_AnonFTPID = 0;
long Unique_Session_GUIID = 0;
long Unique_Session_IMGID = 0;

int total_logged_in = 0;
int reuse = 1;

// Jobs running on pooled threads; the teardown waits for them to end.
std::mutex jobs_mx;
std::condition_variable jobs_cv;
int jobs_running = 0;

void job_started() {
    std::lock_guard<std::mutex> g(jobs_mx);
    ++jobs_running;
}

void job_ended() {
    {
        std::lock_guard<std::mutex> g(jobs_mx);
        --jobs_running;
    }
    jobs_cv.notify_all();
}

// The counter of one of the five counted kinds, or null.
long* counter_of(const char* name) {
    if (name == THREAD_ID_STRING_CHANNEL_OPENING) return &Unique_Session_NONID;
    if (name == THREAD_ID_STRING_FTP) return &Unique_Session_FTPID;
    if (name == THREAD_ID_STRING_ANONFTP) return &Unique_Session_AnonFTPID;
    if (name == THREAD_ID_STRING_WEB_ADMIN) return &Unique_Session_GUIID;
    if (name == THREAD_ID_STRING_WEB_IMAGE) return &Unique_Session_IMGID;
    return nullptr;
}

// Gives the row a fresh session number of its kind: 1 for a counted kind.
int number_row(THREADLIST* t) {
    long* c = counter_of(t->threadname);
    if (c == nullptr) return 0;
    t->session = static_cast<int>((*c)++);
    return 1;
}

long read_counter(const long* c) {
    MutexHold hold(MUTEX_CLASS);
    return *c;
}

// What a pooled thread is handed.
struct THREAD_ACCOUNTING {
    AccountFn v_fn = nullptr;
    Link* l = nullptr;
    void* param = nullptr;
    const char* threadname = nullptr;
    Thread* th = nullptr;
    bool pooled = true;  // false: the thread ends with its job
};

}  // namespace

int main_thread_store(Thread* th, const char* threadname, LINK* l, time_t start_time) {
    if (th == nullptr) return 1;
    MutexHold hold(MUTEX_CLASS);
    for (THREADLIST* t = tlist; t != nullptr; t = t->next) {
        if (t->th != th) continue;
        t->used++;
        t->threadname = threadname;
        t->l = l;
        t->start_time = start_time;
        t->openclose_time = start_time;
        t->MainPid = 0;
        if (number_row(t)) return 1;
        return threadname == THREAD_ID_SELF_DIAGNOSTIC || threadname == THREAD_ID_FTP_CHANNEL_HANDLER ? 1 : 0;
    }
    auto t = std::make_unique<THREADLIST>();
    t->th = th;
    t->threadname = threadname;
    t->used = 1;
    t->l = l;
    t->start_time = start_time;
    t->openclose_time = start_time;
    THREADLIST* row = t.release();
    row->next = tlist;
    tlist = row;
    if (number_row(row)) return 1;
    return threadname == THREAD_ID_SELF_DIAGNOSTIC || threadname == THREAD_ID_MIRROR_PROCESS ||
                   threadname == THREAD_ID_REPORT_PROCESS || threadname == THREAD_ID_FTP_CHANNEL_HANDLER
               ? 1
               : 0;
}

int main_thread_set_name(Thread* th, const char* threadname, LINK* l) {
    MutexHold hold(MUTEX_CLASS);
    for (THREADLIST* t = tlist; t != nullptr; t = t->next) {
        if (t->th != th || t->l != l) continue;
        if (t->threadname != threadname) {
            if (long* old = counter_of(t->threadname)) {
                t->session = static_cast<int>(*old);
                (*old)--;
            }
            t->threadname = threadname;
            number_row(t);
        }
        return 1;
    }
    return 0;
}

int main_thread_store_MainProcess(int pid, const char* threadname, LINK* l, time_t) {
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    auto t = std::make_unique<THREADLIST>();
    t->MainPid = pid;
    t->threadname = threadname;
    t->l = l;
    t->start_time = start_time;
    t->openclose_time = start_time;
    THREADLIST* row = t.release();
    row->next = tlist;
    tlist = row;
    return 1;
}

int main_thread_remove_MainProcess(int pid) {
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    int found = 0;
    for (THREADLIST** p = &tlist; *p != nullptr;) {
        THREADLIST* t = *p;
        if (pid != 0 && t->MainPid == pid) {
            *p = t->next;
            delete t;
            dmsg("Thread: main deleted from list\n");
            found = 1;
        } else {
            p = &t->next;
        }
    }
    if (!found) emsg("Thread: Unable to find main thread to kill \n");
    return found;
}

THREADLIST* main_thread_list() { return tlist; }

int main_thread_count() {
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    int n = 0;
    for (THREADLIST* t = tlist; t != nullptr; t = t->next) ++n;
    return n + 2;
}

int main_thread_free_one(Thread* th, int do_reuse) {
    if (th == nullptr) {
        imsg("main_thread_free_one passed  NULL");
        return 0;
    }
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    int passed = 0;
    for (THREADLIST** p = &tlist; *p != nullptr; p = &(*p)->next, ++passed) {
        THREADLIST* t = *p;
        if (t->th != th) continue;
        if (t->l != nullptr) {
            Link* l = t->l;
            t->l = nullptr;
            link_free(&l);
        }
        if (do_reuse && !shutdown_now.load()) {
            t->openclose_time = time(nullptr);
            t->threadname = THREAD_ID_IDLE_THREAD;
            dmsg("Thread: %d idle\n", th_id());
            return 1;
        }
        *p = t->next;
        dmsg("Thread: %d ending\n", th_id());
        // The pool frees the handle of a thread that ends: it was never given
        // out to anyone else but this row.
        th_free(t->th);
        delete t;
        return 0;
    }
    if (passed > 0) emsg("Unable to find thread to kill %p, there were %d threads running\n", static_cast<void*>(th), passed);
    return 0;
}

namespace {

// A pooled thread that ended idle leaves its row: the row holds its handle.
void forget_idle_thread(Thread* th) {
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    for (THREADLIST** p = &tlist; *p != nullptr; p = &(*p)->next) {
        THREADLIST* t = *p;
        if (t->th != th) continue;
        *p = t->next;
        dmsg("Thread: %d ending idle\n", th_id());
        th_free(t->th);
        delete t;
        return;
    }
}

[[maybe_unused]] const bool g_idle_hook = (th_set_idle_end_hook(&forget_idle_thread), true);

}  // namespace

int main_thread_kill_all(int is_restarting) {
    {
        MutexHold hold(MUTEX_CREATE_THREAD_LIST);
        for (THREADLIST* t = tlist; t != nullptr; t = t->next) {
            if (t->MainPid != 0) continue;
            const char* n = t->threadname;
            if ((n == THREAD_ID_STRING_CHANNEL_OPENING || n == THREAD_ID_STRING_FTP || n == THREAD_ID_STRING_ANONFTP) &&
                t->l != nullptr && t->l->c) {
                // Only the socket is shut: the session's own thread still
                // owns its channel and frees it on its way out. A TLS channel
                // gets no text: its TLS state belongs to the session's thread.
                if (!tcp_is_in_ssl_mode(t->l->c.get()))
                    tcp_printf(t->l->c.get(), "500 Server %s. Please try again soon\r\n\r\n",
                               is_restarting ? "Restarting" : "Shutting Down");
                ::shutdown(tcp_get_sockethandle(t->l->c.get()), SHUT_RDWR);
            }
            if (n == THREAD_ID_MIRROR_PROCESS || n == THREAD_ID_REPORT_PROCESS) exit_due_to_shutdown_now.store(1);
        }
    }
    // The sessions see their sockets closed and leave; the wait for the
    // last job to end is bounded.
    {
        std::unique_lock<std::mutex> lk(jobs_mx);
        jobs_cv.wait_for(lk, std::chrono::seconds(kKillAllWaitSeconds), [] { return jobs_running <= 0; });
    }
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    while (tlist != nullptr) {
        THREADLIST* t = tlist;
        tlist = t->next;
        if (t->threadname != THREAD_ID_IDLE_THREAD) {
            dmsg("thread_free_all %p\n", static_cast<void*>(t));
            if (t->th != nullptr) emsg("A thread had not closed (%s)", t->threadname);
        }
        if (t->th != nullptr) {
            th_kill(t->th, 0);
            th_free(t->th);
        }
        delete t;
    }
    hold.release();
    th_kill_all_threads_exit();
    return 1;
}

long get_server_FTP_sessions_served() { return read_counter(&Unique_Session_FTPID); }
long get_server_AnonFTP_sessions_served() { return read_counter(&Unique_Session_AnonFTPID); }
long get_server_GUI_sessions_served() { return read_counter(&Unique_Session_GUIID); }
long get_server_IMG_sessions_served() { return read_counter(&Unique_Session_IMGID); }
long get_server_NON_sessions_served() { return read_counter(&Unique_Session_NONID); }

void total_add_user() {
    MutexHold hold(MUTEX_CURRENT_CONNECTIONS);
    total_logged_in++;
}

void total_remove_user() {
    MutexHold hold(MUTEX_CURRENT_CONNECTIONS);
    total_logged_in--;
}

int total_logged_in_users() {
    MutexHold hold(MUTEX_CURRENT_CONNECTIONS);
    return total_logged_in;
}

int ftp_is_reuse() {
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    return reuse;
}

void ftp_set_reuse(int truth) {
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    reuse = truth;
}

int main_new_reuse_thread(AccountFn v_fn, LINK* l, void* param, const char* threadname) {
    auto arg = std::make_unique<THREAD_ACCOUNTING>();
    arg->v_fn = v_fn;
    arg->threadname = threadname;
    arg->l = l;
    arg->param = param;
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    Thread* h = nullptr;
    if (!th_new_reuse_th(thread_accounting_fn, arg.get(), &h)) return 0;
    if (l != nullptr) l->th = h;
    arg->th = h;
    arg.release();  // thread_accounting_fn owns it
    return 1;
}

int main_new_thread(AccountFn v_fn, LINK* l, void* param, const char* threadname, size_t stack_bytes) {
    auto arg = std::make_unique<THREAD_ACCOUNTING>();
    arg->v_fn = v_fn;
    arg->threadname = threadname;
    arg->l = l;
    arg->param = param;
    arg->pooled = false;
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);
    Thread* h = th_new_stack(thread_accounting_fn, arg.get(), stack_bytes);
    if (h == nullptr) return 0;
    if (l != nullptr) l->th = h;
    arg->th = h;
    arg.release();  // thread_accounting_fn owns it
    return 1;
}

int thread_accounting_fn(void* x) {
    time_t start = time(nullptr);
    MutexHold hold(MUTEX_CREATE_THREAD_LIST);  // the creator has filled in th
    std::unique_ptr<THREAD_ACCOUNTING> arg(static_cast<THREAD_ACCOUNTING*>(x));
    AccountFn v_fn = arg->v_fn;
    Link* l = arg->l;
    void* param = arg->param;
    const char* threadname = arg->threadname;
    Thread* th = arg->th;
    const bool pooled = arg->pooled;
    if (l != nullptr) l->th = th;
    arg.reset();
    if (!main_thread_store(th, threadname, l, start)) {
        hold.release();
        emsg("Thread: cant store thread, %s, abandoning\n", threadname);
        return 0;
    }
    hold.release();
    dmsg("Thread: %d active: %s\n", th_id(), threadname);
    job_started();
    if (param != nullptr)
        v_fn(param);
    else
        v_fn(l);
    // A thread of its own leaves its row, whose handle goes with it.
    int r = main_thread_free_one(th, pooled ? ftp_is_reuse() : 0);
    job_ended();
    if (r == 0) dmsg("Thread: %d exiting: %s\n", th_id(), threadname);
    return r;
}

}  // namespace korv
