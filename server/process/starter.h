// The hand-over between the FTP acceptor and session start. The acceptor only
// takes connections off the listener and queues them here; one starter thread
// gives each its session record and thread. A thread start can take
// milliseconds when the pool is cold, and a session-table lock can be held by a
// thread that is not running; neither may keep the acceptor from the listener,
// whose queue would overflow and cost every dropped client a second.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <deque>
#include <mutex>
#include <thread>

#include "net/tcp.h"

namespace korv {

// One accepted connection and what its listener says about it.
struct Accepted {
  ChanPtr c;
  int autossl = 0;               // came in on the implicit-TLS port
  const char* strid = nullptr;   // the listener's thread label
  time_t at = 0;                 // when it was accepted
};

class SessionStarter {
 public:
  using StartFn = void (*)(Accepted&&);
  static constexpr size_t kMaxWaiting = 4096;

  explicit SessionStarter(StartFn fn);
  // Stops the thread; connections still waiting are closed.
  ~SessionStarter();
  SessionStarter(const SessionStarter&) = delete;
  SessionStarter& operator=(const SessionStarter&) = delete;

  // Queues `a` for its start; with kMaxWaiting already queued, starts it on
  // the caller's thread instead, which slows the acceptor as it should.
  void push(Accepted a);

 private:
  void run();

  StartFn fn_;
  std::mutex m_;
  std::condition_variable cv_;
  std::deque<Accepted> q_;
  bool stop_ = false;
  std::thread th_;
};

}  // namespace korv
