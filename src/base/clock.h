// One injectable clock for every "now" and every wait of the system.
//
// Each program's main makes its clock and hands it to the parts that need
// it. Tests pass a ManualClock and drive time forward themselves, so that a 30 s settle wait or a 17-hour sweep timer runs
// in microseconds and no test ever sleeps for real.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

namespace zephlore {

using Duration = std::chrono::nanoseconds;
using TimePoint = std::chrono::time_point<std::chrono::steady_clock, Duration>;
using WallTime = std::chrono::time_point<std::chrono::system_clock, Duration>;

// Seconds as a double (the unit the rest of the system speaks) to a Duration,
// rounded to the nearest nanosecond (0.3 s is 300,000,000 ns, not one less).
// Out-of-range values saturate and NaN is zero, so no input is undefined.
constexpr Duration seconds(double s) {
  if (!(s == s)) return Duration(0);
  if (s >= 9.2e9) return Duration::max();
  if (s <= -9.2e9) return Duration::min();
  const double ns = s * 1e9;
  return Duration(static_cast<int64_t>(ns < 0 ? ns - 0.5 : ns + 0.5));
}
inline double toSeconds(Duration d) { return std::chrono::duration<double>(d).count(); }

class Clock {
 public:
  virtual ~Clock() = default;

  // Monotonic time, for delays and timers.
  virtual TimePoint now() const = 0;
  // Calendar time, for dates shown or stored and for file ages.
  virtual WallTime wallNow() const = 0;

  // Blocks the calling thread until now() >= deadline.
  virtual void sleepUntil(TimePoint deadline) = 0;
  void sleepFor(Duration d) { sleepUntil(now() + d); }

  // Waits on `cv` (whose mutex `lock` holds) until `ready()` is true or the
  // deadline has passed on this clock. Returns ready(). Spurious wake-ups are
  // handled; the caller's notify_* calls wake it as usual.
  virtual bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                         TimePoint deadline, const std::function<bool()>& ready) = 0;

  // How long a blocking poll() may sleep for real before `deadline` is due:
  // the remaining time on a real clock, nothing (wait to be woken) on a
  // manual one.
  virtual std::optional<Duration> realTimeUntil(TimePoint deadline) const = 0;

  // Called after time jumps (manual clocks only), so that a run loop waiting
  // in poll() can look at its timers again. Returns an id for removal.
  virtual uint64_t addAdvanceObserver(std::function<void()> observer) = 0;
  virtual void removeAdvanceObserver(uint64_t id) = 0;
};

class SystemClock final : public Clock {
 public:
  TimePoint now() const override;
  WallTime wallNow() const override;
  void sleepUntil(TimePoint deadline) override;
  bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline, const std::function<bool()>& ready) override;
  std::optional<Duration> realTimeUntil(TimePoint deadline) const override;
  uint64_t addAdvanceObserver(std::function<void()>) override { return 0; }
  void removeAdvanceObserver(uint64_t) override {}
};

// Time stands still until advance() or set() moves it. Threads blocked in
// sleepUntil()/waitUntil() wake when time reaches their deadline.
class ManualClock final : public Clock {
 public:
  // Starts at an arbitrary monotonic point and at `wall` for calendar time.
  explicit ManualClock(WallTime wall = WallTime(std::chrono::seconds(1'800'000'000)));

  TimePoint now() const override;
  WallTime wallNow() const override;
  void sleepUntil(TimePoint deadline) override;
  bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline, const std::function<bool()>& ready) override;
  std::optional<Duration> realTimeUntil(TimePoint) const override { return std::nullopt; }
  uint64_t addAdvanceObserver(std::function<void()> observer) override;
  void removeAdvanceObserver(uint64_t id) override;

  // Moves both clocks forward by `d` (negative: nothing; monotonic time never
  // goes back) and wakes the waiters whose deadline has come. Must not be
  // called while holding a mutex that a thread passes to waitUntil().
  void advance(Duration d);
  void setWall(WallTime wall);  // moves calendar time only (a clock change)

  // Blocks (for real, but only until the event happens) until at least `n`
  // threads wait in sleepUntil()/waitUntil(): lets a test advance time only
  // once a worker has reached its wait.
  void waitForSleepers(int n) const;
  int sleepers() const;

 private:
  struct Waiter;

  // Time is atomic so that now() never takes a lock: a waiter reads it while
  // holding its own mutex, and advance() takes that mutex after ours.
  std::atomic<int64_t> elapsed_ns_{0};
  std::atomic<int64_t> wall_ns_;

  mutable std::mutex mutex_;  // guards everything below; taken before a waiter's mutex
  mutable std::condition_variable changed_;
  int sleepers_ = 0;
  uint64_t next_id_ = 1;
  std::vector<Waiter*> waiters_;
  std::vector<std::pair<uint64_t, std::function<void()>>> observers_;
};

}  // namespace zephlore
