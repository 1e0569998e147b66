#include "base/run_loop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <condition_variable>
#include <future>

#include "base/log.h"

namespace zephlore {

RunLoop::RunLoop(Clock& clock) : clock_(clock), wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_fd_) KRLog("*** RunLoop: eventfd failed: %s", strerror(errno));
  advance_observer_ = clock_.addAdvanceObserver([this] { wake(); });
}

RunLoop::~RunLoop() {
  clock_.removeAdvanceObserver(advance_observer_);
}

RunLoop::TimerId RunLoop::addTimer(TimePoint deadline, Timer timer) {
  TimerId id;
  {
    std::lock_guard lock(mutex_);
    id = timer.id = next_id_++;
    timers_.emplace(deadline, std::move(timer));
  }
  wake();
  return id;
}

RunLoop::TimerId RunLoop::performAfterDelay(Duration delay, std::function<void()> fn) {
  return addTimer(clock_.now() + delay, Timer{0, std::move(fn)});
}

RunLoop::TimerId RunLoop::performAfterDelay(const void* target, std::string key, Duration delay,
                                            std::function<void()> fn) {
  return addTimer(clock_.now() + delay,
                  Timer{0, std::move(fn), Duration(0), target, std::move(key)});
}

void RunLoop::cancelPerform(const void* target, const std::string& key) {
  std::lock_guard lock(mutex_);
  std::erase_if(timers_, [&](const auto& entry) {
    return entry.second.target == target && entry.second.key == key;
  });
}

RunLoop::TimerId RunLoop::scheduleRepeating(Duration interval, std::function<void()> fn) {
  if (interval <= Duration(0)) interval = Duration(1);
  return addTimer(clock_.now() + interval, Timer{0, std::move(fn), interval});
}

bool RunLoop::cancel(TimerId id) {
  std::lock_guard lock(mutex_);
  return std::erase_if(timers_, [id](const auto& entry) { return entry.second.id == id; }) > 0;
}

bool RunLoop::isScheduled(TimerId id) const {
  std::lock_guard lock(mutex_);
  for (const auto& entry : timers_) {
    if (entry.second.id == id) return true;
  }
  return false;
}

void RunLoop::post(std::function<void()> fn) {
  {
    std::lock_guard lock(mutex_);
    if (shut_down_) return;
    posted_.push_back(std::move(fn));
  }
  wake();
}

bool RunLoop::postAndWait(std::function<void()> fn) {
  if (isLoopThread()) {
    fn();
    return true;
  }
  // The promise is kept alive by the posted call itself; if the loop drops
  // the call at shutdown, the future reports a broken promise.
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  {
    std::lock_guard lock(mutex_);
    if (shut_down_) return false;
    // The posted call must hold the only reference: a copy kept here would
    // keep the promise alive and turn a dropped call into a wait for ever.
    posted_.push_back([fn = std::move(fn), done = std::move(done)]() mutable {
      fn();
      done->set_value();
    });
  }
  wake();
  try {
    finished.get();
    return true;
  } catch (const std::future_error&) {
    return false;
  }
}

RunLoop::WatchId RunLoop::watchFd(int fd, short events, std::function<void(short)> fn) {
  WatchId id;
  {
    std::lock_guard lock(mutex_);
    id = next_id_++;
    watches_.push_back(Watch{id, fd, events, std::move(fn)});
  }
  wake();
  return id;
}

void RunLoop::unwatchFd(WatchId id) {
  std::lock_guard lock(mutex_);
  std::erase_if(watches_, [id](const Watch& w) { return w.id == id; });
}

void RunLoop::wake() {
  if (!wake_fd_) return;
  uint64_t one = 1;
  ssize_t ignored = write(wake_fd_.get(), &one, sizeof one);
  (void)ignored;
}

size_t RunLoop::pendingCalls() const {
  std::lock_guard lock(mutex_);
  return posted_.size();
}

void RunLoop::bindThread() { thread_ = std::this_thread::get_id(); }

bool RunLoop::isLoopThread() const { return thread_.load() == std::this_thread::get_id(); }

int RunLoop::runPosted() {
  std::vector<std::function<void()>> batch;
  {
    std::lock_guard lock(mutex_);
    batch.swap(posted_);
  }
  for (auto& fn : batch) fn();
  return static_cast<int>(batch.size());
}

int RunLoop::runDueTimers() {
  int ran = 0;
  // Only timers that existed and were due at entry run in this pass, so a
  // call that re-arms itself with zero delay cannot starve the rest of the
  // loop (under a manual clock its deadline equals `now`).
  const TimePoint now = clock_.now();
  TimerId first_new_id;
  {
    std::lock_guard lock(mutex_);
    first_new_id = next_id_;
  }
  for (;;) {
    Timer timer;
    TimePoint deadline;
    {
      std::lock_guard lock(mutex_);
      auto it = timers_.begin();
      while (it != timers_.end() && it->first <= now && it->second.id >= first_new_id) ++it;
      if (it == timers_.end() || it->first > now) break;
      deadline = it->first;
      timer = it->second;
      if (timer.interval > Duration(0)) {
        TimePoint next = deadline + timer.interval;
        if (next <= now) next = now + timer.interval - (now - deadline) % timer.interval;
        auto node = timers_.extract(it);
        node.key() = next;
        timers_.insert(std::move(node));
      } else {
        timers_.erase(it);
      }
    }
    timer.fn();
    ++ran;
  }
  return ran;
}

int RunLoop::pollOnce(bool may_block, std::optional<TimePoint> until) {
  std::vector<pollfd> fds;
  std::vector<WatchId> ids;
  int timeout_ms = 0;
  {
    std::lock_guard lock(mutex_);
    fds.push_back(pollfd{wake_fd_.get(), POLLIN, 0});
    for (const Watch& w : watches_) {
      fds.push_back(pollfd{w.fd, w.events, 0});
      ids.push_back(w.id);
    }
    if (may_block && posted_.empty() && !stop_requested_) {
      timeout_ms = -1;
      std::optional<TimePoint> wake_at = until;
      if (!timers_.empty() && (!wake_at || timers_.begin()->first < *wake_at)) {
        wake_at = timers_.begin()->first;
      }
      if (wake_at) {
        const TimePoint first = *wake_at;
        // A manual clock gives no real wait; a timer already due (armed at
        // zero delay during the last pass) must not leave us blocked.
        std::optional<Duration> wait =
            first <= clock_.now() ? Duration(0) : clock_.realTimeUntil(first);
        if (wait) {
          // Round up so that we never wake just before the deadline and spin.
          auto ms = std::chrono::ceil<std::chrono::milliseconds>(*wait).count();
          timeout_ms = static_cast<int>(std::min<int64_t>(ms, INT_MAX));
        }
      }
    }
  }
  int n = poll(fds.data(), fds.size(), timeout_ms);
  if (n <= 0) {
    if (n < 0 && errno != EINTR) KRLog("*** RunLoop: poll failed: %s", strerror(errno));
    return 0;
  }
  if (fds[0].revents & POLLIN) {
    uint64_t count;
    ssize_t ignored = read(wake_fd_.get(), &count, sizeof count);
    (void)ignored;
  }
  int ran = 0;
  for (size_t i = 1; i < fds.size(); ++i) {
    if (!fds[i].revents) continue;
    std::function<void(short)> fn;
    {
      std::lock_guard lock(mutex_);
      for (const Watch& w : watches_) {
        if (w.id == ids[i - 1]) fn = w.fn;  // skip watches removed meanwhile
      }
      if (fn && (fds[i].revents & POLLNVAL)) {
        // A descriptor closed behind our back would report this on every
        // poll and spin the loop; drop the watch instead.
        KRLog("*** RunLoop: descriptor %d was closed while watched; watch removed", fds[i].fd);
        std::erase_if(watches_, [&](const Watch& w) { return w.id == ids[i - 1]; });
        fn = nullptr;
      }
    }
    if (fn) {
      fn(fds[i].revents);
      ++ran;
    }
  }
  return ran;
}

int RunLoop::runUntilIdle() {
  bindThread();
  int total = 0;
  for (;;) {
    int ran = runPosted() + runDueTimers() + pollOnce(false);
    if (ran == 0) break;
    total += ran;
  }
  return total;
}

bool RunLoop::runUntil(const std::function<bool()>& done, Duration limit) {
  runLoop(done, clock_.now() + limit);
  return done();
}

void RunLoop::run() {
  runLoop([] { return false; }, std::nullopt);
}

void RunLoop::runLoop(const std::function<bool()>& done, std::optional<TimePoint> until) {
  bindThread();
  for (;;) {
    runPosted();
    runDueTimers();
    {
      std::lock_guard lock(mutex_);
      if (stop_requested_) {
        stop_requested_ = false;
        return;
      }
    }
    if (done()) return;
    if (until && clock_.now() >= *until) {
      KRLog("*** RunLoop: gave up waiting after the time limit");
      return;
    }
    pollOnce(true, until);
  }
}

void RunLoop::stop() {
  {
    std::lock_guard lock(mutex_);
    stop_requested_ = true;
  }
  wake();
}

void RunLoop::shutdown() {
  std::vector<std::function<void()>> dropped;
  {
    std::lock_guard lock(mutex_);
    shut_down_ = true;
    dropped.swap(posted_);
  }
  // Destroying the dropped calls breaks their promises, releasing waiters.
}

}  // namespace zephlore
