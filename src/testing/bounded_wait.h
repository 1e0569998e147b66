// Waits in tests end: a regression that never signals fails the test within
// seconds instead of hanging until the runner's timeout. These are real-time
// bounds on waits for other threads, not sleeps; nothing is timed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zephlore::testkit {

// Far longer than any healthy wait, also under the sanitizers.
inline constexpr std::chrono::seconds kWaitLimit{5};

// cv.wait(lock, ready) that gives up after kWaitLimit; returns ready().
template <typename Ready>
bool boundedWait(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, Ready ready) {
  return cv.wait_for(lock, kWaitLimit, ready);
}

// std::latch with a wait that gives up: wait() returns false when the count
// did not reach zero within kWaitLimit.
class BoundedLatch {
 public:
  explicit BoundedLatch(int count) : count_(count) {}
  void countDown() {
    std::lock_guard lock(mutex_);
    if (count_ > 0 && --count_ == 0) cv_.notify_all();
  }
  [[nodiscard]] bool wait() {
    std::unique_lock lock(mutex_);
    return boundedWait(lock, cv_, [&] { return count_ == 0; });
  }
  [[nodiscard]] bool arriveAndWait() {
    countDown();
    return wait();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int count_;
};

}  // namespace zephlore::testkit
