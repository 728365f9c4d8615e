// Private state of the settings store, shared by its source files: the
// definitions, the domain list, the park list, the lock and the log hooks.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "store/vini.h"

namespace korv::vini_detail {

// The store's re-entrant timed lock: the same thread may take it again; a
// wait has a limit. Built on a plain mutex and a condition variable so that
// every hand-over is a visible synchronisation.
class ViniLock {
 public:
  bool try_lock_for(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> g(m_);
    std::thread::id me = std::this_thread::get_id();
    if (depth_ > 0 && owner_ == me) {
      depth_++;
      return true;
    }
    if (!cv_.wait_for(g, limit, [&] { return depth_ == 0; })) return false;
    owner_ = me;
    depth_ = 1;
    return true;
  }
  void lock() {
    while (!try_lock_for(std::chrono::milliseconds(kViniLockWaitMs))) {
    }
  }
  void unlock() {
    std::lock_guard<std::mutex> g(m_);
    if (depth_ > 0 && --depth_ == 0) {
      owner_ = std::thread::id();
      cv_.notify_one();
    }
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::thread::id owner_;
  int depth_ = 0;
};

struct FREELIST {
  std::unique_ptr<INITABLE> t;  // the park owns what it holds
  time_t when = 0;
};

struct Store {
  std::vector<INITYPE> itypes;  // reserved to kViniMaxTable: entries never move
  int ntable = 0;
  std::vector<std::unique_ptr<INITABLE>> vdomains;  // guarded by imutex
  int vdomains_count = 0;
  std::string inifile;
  ViniLock imutex;
  std::vector<FREELIST> freelist;                  // guarded by imutex
  std::vector<std::unique_ptr<INITABLE>> zombies;  // removed, still referenced
  const char* lock_fname = nullptr;
  int lock_line = 0;
  std::atomic<ViniLogFn> logfn{nullptr};
  std::atomic<ViniPrintFn> printfn{nullptr};
  // The first domain as lock-free readers see it: set when a load or a change
  // is complete, never to a table that is being edited.
  std::atomic<INITABLE*> published{nullptr};
  std::mutex pub_mutex;  // with pub_cond, wakes readers waiting for a first load
  std::condition_variable pub_cond;
  int change_depth = 0;  // nesting of vini_lock_all_x, guarded by imutex
};

Store& store();

// Depth of this thread's holds on the store's lock.
int lock_depth();

// Logs through the callback (standard output without one).
void vlog(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Writes to the print hook (standard output by default).
void vprint(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Prints "VINI_ABORT" and the lock holder, then ends the process.
[[noreturn]] void vini_abort();
[[noreturn]] void vini_fault(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The definition of code x, or null when out of range.
const INITYPE* def(int x);
// Index of `param` among the parameter names of x; aborts on an unknown one.
int param_index(int x, const char* param);

// Stores tokens p[1..n-1] into v (p[0] is the name).
void vini_set_val(INIVAL* v, int x, char** p, int n);
// Builds an empty value sized for setting x.
std::unique_ptr<INIVAL> new_val(int x);
std::unique_ptr<INITABLE> new_table();
// Appends a value to the tail of the chain of x in t and returns it.
INIVAL* append_val(INITABLE* t, int x);

// Reads the file into fresh tables in store().vdomains (lock held).
void vini_load();
// Publishes the first domain for lock-free readers (lock held).
void publish();
// Parks a retired table (lock held).
void vini_free_later(std::unique_ptr<INITABLE> t);
// Asserts that the calling thread is between vini_lock_all_x and vini_unlock_all.
void require_change(const char* what);

}  // namespace korv::vini_detail
