#include "base/clock.h"

#include <algorithm>
#include <thread>
#include <vector>

namespace zephlore {

// --- SystemClock ----------------------------------------------------------

TimePoint SystemClock::now() const {
  return std::chrono::time_point_cast<Duration>(std::chrono::steady_clock::now());
}

WallTime SystemClock::wallNow() const {
  return std::chrono::time_point_cast<Duration>(std::chrono::system_clock::now());
}

void SystemClock::sleepUntil(TimePoint deadline) { std::this_thread::sleep_until(deadline); }

bool SystemClock::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                            TimePoint deadline, const std::function<bool()>& ready) {
  return cv.wait_until(lock, deadline, ready);
}

std::optional<Duration> SystemClock::realTimeUntil(TimePoint deadline) const {
  return std::max(Duration(0), deadline - now());
}

// --- ManualClock ----------------------------------------------------------

// A thread blocked in waitUntil() on its own condition variable. advance()
// notifies it while holding the waiter's mutex, so the wake-up cannot slip in
// between the waiter's look at the time and its wait. The waiter registers
// and unregisters without holding its mutex, so the lock order is always
// ours first, then the waiter's.
struct ManualClock::Waiter {
  std::mutex* mutex;
  std::condition_variable* cv;
};

namespace {
constexpr int64_t kManualEpochNs = 3600LL * 1'000'000'000;  // any fixed origin
}

ManualClock::ManualClock(WallTime wall) : wall_ns_(wall.time_since_epoch().count()) {}

TimePoint ManualClock::now() const {
  return TimePoint(Duration(kManualEpochNs + elapsed_ns_.load()));
}

WallTime ManualClock::wallNow() const { return WallTime(Duration(wall_ns_.load())); }

void ManualClock::sleepUntil(TimePoint deadline) {
  std::unique_lock lock(mutex_);
  ++sleepers_;
  changed_.notify_all();
  changed_.wait(lock, [&] { return now() >= deadline; });
  --sleepers_;
  changed_.notify_all();
}

bool ManualClock::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                            TimePoint deadline, const std::function<bool()>& ready) {
  Waiter me{lock.mutex(), &cv};
  lock.unlock();
  {
    std::lock_guard guard(mutex_);
    waiters_.push_back(&me);
    ++sleepers_;
    changed_.notify_all();
  }
  lock.lock();
  while (!ready() && now() < deadline) cv.wait(lock);
  bool result = ready();
  lock.unlock();
  {
    std::lock_guard guard(mutex_);
    waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &me));
    --sleepers_;
    changed_.notify_all();
  }
  lock.lock();
  return result;
}

void ManualClock::advance(Duration d) {
  if (d < Duration(0)) return;
  elapsed_ns_ += d.count();
  wall_ns_ += d.count();
  std::vector<std::function<void()>> observers;
  {
    std::lock_guard lock(mutex_);
    changed_.notify_all();
    for (Waiter* w : waiters_) {
      std::lock_guard waiter_lock(*w->mutex);
      w->cv->notify_all();
    }
    for (auto& entry : observers_) observers.push_back(entry.second);
  }
  for (auto& fn : observers) fn();
}

void ManualClock::setWall(WallTime wall) { wall_ns_ = wall.time_since_epoch().count(); }

uint64_t ManualClock::addAdvanceObserver(std::function<void()> observer) {
  std::lock_guard lock(mutex_);
  uint64_t id = next_id_++;
  observers_.emplace_back(id, std::move(observer));
  return id;
}

void ManualClock::removeAdvanceObserver(uint64_t id) {
  std::lock_guard lock(mutex_);
  std::erase_if(observers_, [id](const auto& o) { return o.first == id; });
}

void ManualClock::waitForSleepers(int n) const {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return sleepers_ >= n; });
}

int ManualClock::sleepers() const {
  std::lock_guard lock(mutex_);
  return sleepers_;
}

}  // namespace zephlore
