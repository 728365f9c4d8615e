// Threads: a thin layer over POSIX threads, the reuse pool that keeps finished
// session threads alive for the next job, and the remembered timed mutex that
// the numbered locks stand on.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

namespace korv {

// A started thread. Made by th_new, freed by th_free (or owned by ThreadPtr).
// Freeing the record does not stop the thread; it only drops the handle.
struct Thread;
using ThreadFn = int (*)(void*);

struct ThreadFree {
    void operator()(Thread* t) const;
};
using ThreadPtr = std::unique_ptr<Thread, ThreadFree>;

Thread* th_new(ThreadFn fn, void* arg);  // detached, system scope; null on failure
// The same with a stack of its own size (0: the system's default), for the few
// threads that need more than the sessions' stacks.
Thread* th_new_stack(ThreadFn fn, void* arg, size_t stack_bytes);
// Stack size of threads started from now on (0: the system's default). Session
// threads need far less than the default 8 MiB of address space each.
void th_set_stack_size(size_t bytes);
size_t th_get_stack_size();
// Called by a pooled thread just before it ends, so that a library with
// per-thread state (the TLS library's random generators) can release it.
using ThreadEndFn = void (*)();
void th_set_end_hook(ThreadEndFn fn);
// Called by a pool thread that ends for having been idle too long, with the
// handle given out for it (the hook's owner frees that handle).
using ThreadIdleEndFn = void (*)(Thread*);
void th_set_idle_end_hook(ThreadIdleEndFn fn);
int th_free(Thread* t);
[[noreturn]] int th_exit(int x);
int th_kill(Thread* t, int x);  // pthread_kill; an ended thread gives ESRCH, never a fault
int th_id();                    // the kernel's thread id: small, stable for the thread's life
int th_pid();
int th_cpu_msec();              // CPU time of the process in ms

// The reuse pool.
int th_init_threads();
int th_new_reuse_th(ThreadFn fn, void* arg, Thread** th);
int th_new_reuse(ThreadFn fn, void* arg);
int th_orders_find_th(ThreadFn fn, void* arg, Thread** th);
int th_orders_find(ThreadFn fn, void* arg);
int th_orders_find_th_optional_exit(ThreadFn fn, void* arg, Thread** th, int set_exit);
Thread* th_new_or_idle(ThreadFn fn, void* arg);
int th_kill_all_threads_exit();
int th_count_now();  // pool threads alive
int th_idle_now();   // pool threads waiting for a job
// A pool thread idle longer than idle_ms ends while more than `floor` threads
// are idle, so that a burst leaves no crowd of threads behind. Tests shorten it.
inline constexpr long long kPoolIdleEndMs = 60000;
inline constexpr int kPoolIdleFloor = 16;
void th_set_pool_idle(long long idle_ms, int floor);

// A system mutex that remembers its name, its owner and where it was last had.
// Re-entrant for the owner: repeat holds count in nref.
struct MUTEX {
    std::string name;
    std::atomic<const char*> file{""};
    std::atomic<int> line{0};
    pthread_mutex_t h;
    int nref = 0;                     // repeat holds by the owner; only the owner touches it
    std::atomic<int> threadid{-1};    // the owner, -1 when free
};
using Mutex = MUTEX;

Mutex* th_mutex_new_remember(const char* name, const char* in_file, int at_line);
// Waits up to `timeout` ms in whole seconds (under 1000 is one try); 1 had, 0 not.
int th_mutex_wait_remember(Mutex* m, unsigned int timeout, const char* in_file, int at_line);
int th_mutex_release(Mutex* m, const char* in_file = __builtin_FILE(), int at_line = __builtin_LINE());
int th_mutex_free(Mutex* m);

}  // namespace korv
