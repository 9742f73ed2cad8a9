// A manual-reset event on a mutex and a condition variable: stays signalled until Reset. Waiting
// first polls the flag for a short while (yielding the processor), because the fan-out hands a
// block to its workers and back many thousand times a second and a sleep on the condition
// variable costs a context switch each time; only a longer wait blocks.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace sonvex {

class Event {
public:
  void Set() {
    std::lock_guard<std::mutex> guard(mutex_);
    signalled_.store(true, std::memory_order_release);
    if (waiters_ > 0) cv_.notify_all();
  }
  void Reset() {
    std::lock_guard<std::mutex> guard(mutex_);
    signalled_.store(false, std::memory_order_relaxed);
  }
  void Wait() {
    for (int i = 0; i < kPolls; i++) {
      if (signalled_.load(std::memory_order_acquire)) return;
      std::this_thread::yield();
    }
    std::unique_lock<std::mutex> guard(mutex_);
    waiters_++;
    cv_.wait(guard, [this] { return signalled_.load(std::memory_order_relaxed); });
    waiters_--;
  }
  // True if signalled within the time.
  bool WaitFor(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(mutex_);
    waiters_++;
    bool result =
        cv_.wait_for(guard, timeout, [this] { return signalled_.load(std::memory_order_relaxed); });
    waiters_--;
    return result;
  }
  bool IsSet() { return signalled_.load(std::memory_order_acquire); }

private:
  static constexpr int kPolls = 200;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::atomic<bool> signalled_{false};
  int waiters_ = 0;
};

}  // namespace sonvex
