// The session starter's queue and thread.
#include "server/process/starter.h"

#include <utility>

#include "common/mutex.h"

namespace korv {

SessionStarter::SessionStarter(StartFn fn) : fn_(fn), th_([this] { run(); }) {}

SessionStarter::~SessionStarter() {
  {
    std::lock_guard<std::mutex> hold(m_);
    stop_ = true;
  }
  cv_.notify_one();
  th_.join();
}

void SessionStarter::push(Accepted a) {
  {
    std::lock_guard<std::mutex> hold(m_);
    if (q_.size() < kMaxWaiting) {
      q_.push_back(std::move(a));
      cv_.notify_one();
      return;
    }
  }
  fn_(std::move(a));
}

void SessionStarter::run() {
  std::unique_lock<std::mutex> hold(m_);
  for (;;) {
    cv_.wait(hold, [this] { return stop_ || !q_.empty(); });
    if (stop_) return;
    Accepted a = std::move(q_.front());
    q_.pop_front();
    hold.unlock();
    {
      // No session starts while the process changes its main state; a
      // server stuck there accepts but never greets, which the monitor sees.
      MutexHold main_state(MUTEX_MAIN);
      fn_(std::move(a));
    }
    hold.lock();
  }
}

}  // namespace korv
