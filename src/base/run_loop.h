// The main thread's run loop: delayed calls that can be cancelled, repeating
// timers, calls posted from other threads (with or without waiting for them)
// and file-descriptor watches (inotify, signals, ...).
//
// A small loop of our own rather than GLib's: every deadline here is read from
// the injectable Clock, so tests drive a 17-hour timer with a ManualClock
// instead of waiting. GLib's main loop reads the monotonic clock directly.
// D-Bus runs GLib's loop on a thread of its own and hops here (see helper/).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/unique_fd.h"

namespace zephlore {

class RunLoop {
 public:
  using TimerId = uint64_t;
  using WatchId = uint64_t;

  explicit RunLoop(Clock& clock);
  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // Runs `fn` once, `delay` from now, on the loop's thread.
  TimerId performAfterDelay(Duration delay, std::function<void()> fn);
  // The same, filed under (target, key) so that a later cancelPerform() with
  // the same pair drops every pending call of it: the delayed-call/cancel
  // pattern of the helper's classes.
  TimerId performAfterDelay(const void* target, std::string key, Duration delay,
                            std::function<void()> fn);
  void cancelPerform(const void* target, const std::string& key);
  // Runs `fn` every `interval` from now on until cancelled. Missed firings
  // (time jumped by several intervals) coalesce into one.
  TimerId scheduleRepeating(Duration interval, std::function<void()> fn);
  // Cancels a delayed call or a repeating timer. Returns false if it had
  // already run or was unknown. Safe from any thread.
  bool cancel(TimerId id);
  bool isScheduled(TimerId id) const;

  // Runs `fn` on the loop's thread soon, in posting order.
  void post(std::function<void()> fn);
  // Runs `fn` on the loop's thread and returns when it has run. Called on the
  // loop's own thread it runs `fn` at once (no deadlock). Returns false,
  // without running it, if the loop was stopped for good.
  bool postAndWait(std::function<void()> fn);

  // Calls `fn(revents)` on the loop's thread whenever poll() reports `events`
  // on `fd`. The loop does not own the descriptor.
  WatchId watchFd(int fd, short events, std::function<void(short revents)> fn);
  void unwatchFd(WatchId id);

  // Runs until stop(). The calling thread becomes the loop's thread.
  void run();
  // Asks run()/runUntil() to return after the current callback. Any thread.
  void stop();
  // Runs until `done()` is true (checked after every callback), stop(), or
  // `limit` has passed on the loop's clock. Returns done(). The limit keeps a
  // wait for something that never comes from hanging.
  static constexpr Duration kDefaultRunLimit = std::chrono::seconds(10);
  bool runUntil(const std::function<bool()>& done, Duration limit = kDefaultRunLimit);
  // Runs everything that is due now (posted calls, due timers, ready fds)
  // without blocking; returns how many callbacks ran. For tests.
  int runUntilIdle();
  // After shutdown() postAndWait() refuses instead of blocking forever and
  // pending posted calls are dropped. Any thread.
  void shutdown();

  // Posted calls not yet run (lets a test know a hop has been queued).
  size_t pendingCalls() const;

  bool isLoopThread() const;
  // Makes the calling thread the loop's own before it first runs, so that
  // start-up work there may hop to the loop (it then runs in place).
  void bindThread();
  Clock& clock() const { return clock_; }

 private:
  struct Timer {
    TimerId id;
    std::function<void()> fn;
    Duration interval{0};  // 0: once
    const void* target = nullptr;
    std::string key;
  };
  struct Watch {
    WatchId id;
    int fd;
    short events;
    std::function<void(short)> fn;
  };

  TimerId addTimer(TimePoint deadline, Timer timer);
  int runPosted();
  int runDueTimers();
  // Blocks at most until `until` (none: until woken).
  int pollOnce(bool may_block, std::optional<TimePoint> until = std::nullopt);
  void runLoop(const std::function<bool()>& done, std::optional<TimePoint> until);
  void wake();

  Clock& clock_;
  UniqueFd wake_fd_;
  uint64_t advance_observer_ = 0;

  mutable std::mutex mutex_;
  std::multimap<TimePoint, Timer> timers_;  // ordered by deadline, FIFO on ties
  std::vector<std::function<void()>> posted_;
  std::vector<Watch> watches_;
  uint64_t next_id_ = 1;
  bool stop_requested_ = false;
  bool shut_down_ = false;
  std::atomic<std::thread::id> thread_{};
};

}  // namespace zephlore
