// Threads, the reuse pool and the remembered timed mutex. An idle pool thread
// waits on its own condition variable in the list of waiting threads; a job
// handed to it starts at once, and the most recently idle thread gets it.
#include "base/threads.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "base/report.h"

namespace korv {

namespace {

// Shared between a thread and its handle, so that th_kill can tell a thread
// that has ended from one that runs, without touching freed memory.
struct ThreadLife {
    std::atomic<bool> running{true};
};

struct ThreadStart {
    ThreadFn fn;
    void* arg;
    std::shared_ptr<ThreadLife> life;
};

std::string errtext(int err) {
    char bf[256];
    // The GNU strerror_r returns the text, which may or may not be in bf.
    return strerror_r(err, bf, sizeof bf);
}

void* thread_start(void* p) {
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(p));
    std::shared_ptr<ThreadLife> keep = start->life;
    // Runs also when the job ends by th_exit, which unwinds the stack.
    struct Ended {
        ThreadLife* life;
        ~Ended() { life->running.store(false, std::memory_order_release); }
    } ended{keep.get()};
    ThreadFn fn = start->fn;
    void* arg = start->arg;
    start.reset();
    fn(arg);
    return nullptr;
}

}  // namespace

namespace {
std::atomic<size_t> stack_size{0};
}  // namespace

void th_set_stack_size(size_t bytes) { stack_size.store(bytes); }

namespace {
std::atomic<ThreadEndFn> end_hook{nullptr};
}  // namespace

void th_set_end_hook(ThreadEndFn fn) { end_hook.store(fn); }

std::atomic<ThreadIdleEndFn> idle_end_hook{nullptr};
void th_set_idle_end_hook(ThreadIdleEndFn fn) { idle_end_hook.store(fn); }
size_t th_get_stack_size() { return stack_size.load(); }

struct Thread {
    pthread_t h{};
    std::shared_ptr<ThreadLife> life;
};

void ThreadFree::operator()(Thread* t) const { th_free(t); }

Thread* th_new(ThreadFn fn, void* arg) { return th_new_stack(fn, arg, stack_size.load()); }

Thread* th_new_stack(ThreadFn fn, void* arg, size_t stack_bytes) {
    auto t = std::make_unique<Thread>();
    t->life = std::make_shared<ThreadLife>();
    auto start = std::make_unique<ThreadStart>(ThreadStart{fn, arg, t->life});

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    int rc = pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
    if (rc != 0) base_report("Thread setscope failed %s\n", errtext(rc).c_str());
    rc = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (rc != 0) base_report("Thread setdetachstate failed %s\n", errtext(rc).c_str());
    if (size_t ss = stack_bytes; ss != 0) {
        rc = pthread_attr_setstacksize(&attr, ss);
        if (rc != 0) base_report("Thread setstacksize %zu failed %s\n", ss, errtext(rc).c_str());
    }
    rc = pthread_create(&t->h, &attr, thread_start, start.get());
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        base_report("Thread creation failed %s\n", errtext(rc).c_str());
        return nullptr;
    }
    start.release();  // the new thread owns it now
    return t.release();
}

int th_free(Thread* t) {
    delete t;
    return 1;
}

int th_exit(int x) {
    pthread_exit(reinterpret_cast<void*>(static_cast<intptr_t>(x)));
}

int th_kill(Thread* t, int x) {
    if (t == nullptr) return ESRCH;
    if (!t->life->running.load(std::memory_order_acquire)) return ESRCH;
    return pthread_kill(t->h, x);
}

int th_id() {
    thread_local int id = static_cast<int>(syscall(SYS_gettid));
    return id;
}

int th_pid() { return static_cast<int>(getpid()); }

int th_cpu_msec() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<int>(ts.tv_sec * 1000 + ts.tv_nsec / 1000000);
}

// ---------------------------------------------------------------- the pool

namespace {

// One pooled thread's next job.
struct TLIST {
    void* arg = nullptr;
    Thread* h = nullptr;
    ThreadFn fn = nullptr;
    int set_exit = 0;
    bool owns_h = false;  // the handle was never given to a caller: the thread frees it
};

// A waiting thread's row, on that thread's stack; linked while it waits.
struct ORDERS {
    bool isgo = false;
    TLIST* tlist_arg = nullptr;
    std::condition_variable cv;
    ORDERS* next = nullptr;
};

std::mutex rm;                      // guards orders, the records and thread start
std::condition_variable count_cv;   // signalled when th_count falls
ORDERS* orders = nullptr;
int idle_count = 0;
std::atomic<bool> kill_all_threads{false};
std::atomic<int> th_count{0};

// An idle pool thread ends after this long without a job, unless no more
// than the floor of idle threads would be left.
std::atomic<long long> idle_end_ms{kPoolIdleEndMs};
std::atomic<int> idle_floor{kPoolIdleFloor};

int th_exit_now(void*) { return 0; }

void unlink_row(ORDERS* row) {
    for (ORDERS** p = &orders; *p != nullptr; p = &(*p)->next) {
        if (*p == row) {
            *p = row->next;
            idle_count--;
            return;
        }
    }
}

// Parks the thread until a job is given to it or the pool ends; 1 with a job,
// 0 when the pool ends, -1 when the thread has been idle too long.
int th_orders_wait(TLIST* me) {
    std::unique_lock lk(rm);
    if (kill_all_threads.load()) return 0;
    ORDERS row;
    row.tlist_arg = me;
    row.next = orders;
    orders = &row;
    idle_count++;
    for (;;) {
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(idle_end_ms.load());
        if (row.cv.wait_until(lk, until, [&] { return row.isgo || kill_all_threads.load(); })) break;
        // Idle past the limit: above the floor, this thread is one too many.
        if (idle_count > idle_floor.load()) break;
    }
    if (row.isgo) return 1;
    unlink_row(&row);
    return kill_all_threads.load() ? 0 : -1;
}

int th_reuse(void* p) {
    std::unique_ptr<TLIST> me(static_cast<TLIST*>(p));
    { std::lock_guard lk(rm); }  // the creator has finished with the record
    for (;;) {
        if (me->set_exit || kill_all_threads.load()) break;
        if (me->fn(me->arg) == 0) break;
        if (me->set_exit) break;
        int w = th_orders_wait(me.get());
        if (w == 1) continue;
        // The holder of a handle given out learns that this thread is gone.
        if (w == -1 && !me->owns_h) {
            if (ThreadIdleEndFn fn = idle_end_hook.load()) fn(me->h);
        }
        break;
    }
    if (ThreadEndFn fn = end_hook.load()) fn();
    {
        std::lock_guard lk(rm);
        if (me->owns_h) th_free(me->h);
        th_count--;
    }
    count_cv.notify_all();
    return 0;
}

}  // namespace

int th_init_threads() {
    std::lock_guard lk(rm);
    orders = nullptr;
    idle_count = 0;
    th_count = 0;
    kill_all_threads = false;
    return 1;
}

int th_orders_find_th_optional_exit(ThreadFn fn, void* arg, Thread** th, int set_exit) {
    std::lock_guard lk(rm);
    ORDERS* row = orders;
    if (row == nullptr) return 0;
    orders = row->next;
    idle_count--;
    TLIST* t = row->tlist_arg;
    t->fn = fn;
    t->arg = arg;
    t->set_exit = set_exit;
    if (th != nullptr) {
        *th = t->h;
        t->owns_h = false;
    }
    row->isgo = true;
    row->cv.notify_one();  // under rm: the row lives on the waiter's stack
    return 1;
}

int th_orders_find_th(ThreadFn fn, void* arg, Thread** th) {
    return th_orders_find_th_optional_exit(fn, arg, th, 0);
}

int th_orders_find(ThreadFn fn, void* arg) { return th_orders_find_th_optional_exit(fn, arg, nullptr, 0); }

namespace {

// Starts a new pool thread for the job; null if the system refused.
Thread* reuse_start(ThreadFn fn, void* arg, bool give_handle) {
    auto rec = std::make_unique<TLIST>();
    rec->fn = fn;
    rec->arg = arg;
    std::lock_guard lk(rm);
    Thread* t = th_new(th_reuse, rec.get());
    if (t == nullptr) return nullptr;  // th_reuse never started; rec is freed here
    TLIST* r = rec.release();          // the new thread owns it, and waits for rm
    r->h = t;
    r->owns_h = !give_handle;
    th_count++;
    return t;
}

}  // namespace

// A handle given through *th belongs to the caller, who frees it with th_free
// once the thread has ended; later jobs on the same thread return the same
// handle. A handle never given out is freed by its thread.
int th_new_reuse_th(ThreadFn fn, void* arg, Thread** th) {
    if (th_orders_find_th(fn, arg, th)) return 1;
    Thread* t = reuse_start(fn, arg, th != nullptr);
    if (t == nullptr || th == nullptr) return 0;
    *th = t;
    return 1;
}

int th_new_reuse(ThreadFn fn, void* arg) {
    if (th_orders_find(fn, arg)) return 1;
    return reuse_start(fn, arg, false) != nullptr ? 1 : 0;
}

Thread* th_new_or_idle(ThreadFn fn, void* arg) {
    Thread* t = nullptr;
    if (th_orders_find_th(fn, arg, &t)) return t;
    return th_new(fn, arg);
}

int th_kill_all_threads_exit() {
    std::unique_lock lk(rm);
    kill_all_threads = true;
    while (orders != nullptr) {
        ORDERS* row = orders;
        orders = row->next;
        row->tlist_arg->fn = th_exit_now;
        row->tlist_arg->arg = nullptr;
        row->tlist_arg->set_exit = 1;
        row->isgo = true;
        row->cv.notify_one();
    }
    idle_count = 0;
    // At most 25 rounds of 40 ms, as before; the wait ends as soon as the last thread does.
    count_cv.wait_for(lk, std::chrono::milliseconds(25 * 40), [] { return th_count.load() <= 0; });
    return 1;
}

int th_count_now() { return th_count.load(); }

void th_set_pool_idle(long long idle_ms, int floor) {
    idle_end_ms = idle_ms;
    idle_floor = floor;
}

int th_idle_now() {
    std::lock_guard lk(rm);
    return idle_count;
}

// ---------------------------------------------------------------- remembered mutex

Mutex* th_mutex_new_remember(const char* name, const char* in_file, int at_line) {
    auto m = std::make_unique<Mutex>();
    m->name = name != nullptr ? name : "";
    m->file = in_file != nullptr ? in_file : "";
    m->line = at_line;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    int rc = pthread_mutex_init(&m->h, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) return nullptr;
    return m.release();
}

int th_mutex_wait_remember(Mutex* m, unsigned int timeout, const char* in_file, int at_line) {
    if (m == nullptr) return 0;
    int me = th_id();
    if (m->threadid.load(std::memory_order_relaxed) == me) {
        m->nref++;
        return 1;
    }
    unsigned int secs = timeout / 1000;
    int rc = pthread_mutex_trylock(&m->h);
    if (rc == EBUSY && secs > 0) {
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_sec += secs;
        do {
            rc = pthread_mutex_clocklock(&m->h, CLOCK_MONOTONIC, &until);
        } while (rc == EINTR);
    }
    if (rc != 0) {
        std::printf("Mutex lock failed, waited %d seconds\n", static_cast<int>(secs));
        return 0;
    }
    m->threadid.store(me, std::memory_order_relaxed);
    m->nref = 0;
    m->file.store(in_file != nullptr ? in_file : "", std::memory_order_relaxed);
    m->line.store(at_line, std::memory_order_relaxed);
    return 1;
}

int th_mutex_release(Mutex* m, const char*, int) {
    if (m == nullptr) return 0;
    if (m->threadid.load(std::memory_order_relaxed) != th_id()) return 0;
    if (m->nref > 0) {
        m->nref--;
        return 1;
    }
    m->threadid.store(-1, std::memory_order_relaxed);
    return pthread_mutex_unlock(&m->h) == 0 ? 1 : 0;
}

int th_mutex_free(Mutex* m) {
    if (m == nullptr) return 0;
    pthread_mutex_destroy(&m->h);
    delete m;
    return 1;
}

}  // namespace korv
