// A window's main loop in miniature: what a part hands to its Deliver waits
// here, on any thread, until the test runs it on its own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "testing/bounded_wait.h"

namespace zephlore::testkit {

class DeliveryQueue {
 public:
  std::function<void(std::function<void()>)> deliver() {
    return [this](std::function<void()> call) {
      std::lock_guard lock(mutex_);
      calls_.push_back(std::move(call));
      arrived_.notify_all();
    };
  }
  size_t waiting() {
    std::lock_guard lock(mutex_);
    return calls_.size();
  }
  // Waits, within kWaitLimit, until something was delivered.
  bool waitForDelivery() {
    std::unique_lock lock(mutex_);
    return boundedWait(lock, arrived_, [&] { return !calls_.empty(); });
  }
  // Runs what was delivered so far.
  void drain() {
    std::deque<std::function<void()>> batch;
    {
      std::lock_guard lock(mutex_);
      batch.swap(calls_);
    }
    for (auto& call : batch) call();
  }
  // Runs delivered calls one at a time until `done`, within kWaitLimit.
  bool runUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (!done()) {
      if (!runOne(deadline)) return done();
    }
    return true;
  }
  // Runs exactly `count` delivered calls, waiting for them within kWaitLimit.
  bool run(size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    for (size_t i = 0; i < count; ++i) {
      if (!runOne(deadline)) return false;
    }
    return true;
  }

 private:
  bool runOne(std::chrono::steady_clock::time_point deadline) {
    std::function<void()> call;
    {
      std::unique_lock lock(mutex_);
      if (!arrived_.wait_until(lock, deadline, [&] { return !calls_.empty(); })) return false;
      call = std::move(calls_.front());
      calls_.pop_front();
    }
    call();
    return true;
  }

  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::function<void()>> calls_;
};

}  // namespace zephlore::testkit
