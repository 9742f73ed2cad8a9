// A manual-reset event on a mutex and a condition variable: stays signalled until Reset.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace sonvex {

class Event {
public:
  void Set() {
    std::lock_guard<std::mutex> guard(mutex_);
    signalled_ = true;
    cv_.notify_all();
  }
  void Reset() {
    std::lock_guard<std::mutex> guard(mutex_);
    signalled_ = false;
  }
  void Wait() {
    std::unique_lock<std::mutex> guard(mutex_);
    cv_.wait(guard, [this] { return signalled_; });
  }
  // True if signalled within the time.
  bool WaitFor(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(mutex_);
    return cv_.wait_for(guard, timeout, [this] { return signalled_; });
  }
  bool IsSet() {
    std::lock_guard<std::mutex> guard(mutex_);
    return signalled_;
  }

private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool signalled_ = false;
};

}  // namespace sonvex
