#include "engine/ordered_block_pipeline.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace zephlore {

namespace {

constexpr size_t kInlineWindow = 16;

bool runInline(uint64_t count, size_t window, const OrderedBlockPipeline::Stages& stages, Error* error) {
  for (uint64_t first = 0; first < count; first += window) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(window, count - first));
    if (!stages.fill(first, 0, n, error)) return false;
    for (size_t i = 0; i < n; ++i) {
      if (!stages.work(first + i, i, 0, error)) return false;
      if (!stages.drain(first + i, i, error)) return false;
    }
  }
  return true;
}

class ThreadedRun {
 public:
  ThreadedRun(uint64_t count, size_t window, const OrderedBlockPipeline::Stages& stages)
      : count_(count), window_(window), stages_(stages), done_(window, 0), ok_(window, 0), errors_(window) {}

  ~ThreadedRun() { stopWorkers(); }

  // Starts up to `workers` threads; false if none could be started.
  bool startWorkers(size_t workers) {
    for (size_t w = 0; w < workers; ++w) {
      try {
        threads_.emplace_back([this, w] { workerLoop(w); });
      } catch (const std::system_error&) {
        break;  // run with the threads we have
      }
    }
    return !threads_.empty();
  }

  bool coordinate(Error* error) {
    uint64_t filled = 0;
    uint64_t drained = 0;
    while (drained < count_) {
      const uint64_t free = window_ - (filled - drained);
      uint64_t waiting;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        waiting = filled - nextTask_;
      }
      // Refill in large runs, but at once when workers would otherwise idle.
      if (filled < count_ && free > 0 && (free >= (window_ + 1) / 2 || waiting < threads_.size())) {
        const size_t slot = static_cast<size_t>(filled % window_);
        const size_t n = static_cast<size_t>(std::min<uint64_t>({free, window_ - slot, count_ - filled}));
        if (!stages_.fill(filled, slot, n, error)) return false;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          for (size_t i = 0; i < n; ++i) done_[slot + i] = 0;
          filled += n;
          published_ = filled;
        }
        workCv_.notify_all();
        continue;
      }
      const size_t slot = static_cast<size_t>(drained % window_);
      {
        std::unique_lock<std::mutex> lock(mutex_);
        doneCv_.wait(lock, [&] { return done_[slot] != 0; });
        if (!ok_[slot]) {
          if (error) *error = std::move(errors_[slot]);
          return false;
        }
      }
      if (!stages_.drain(drained, slot, error)) return false;
      ++drained;
    }
    return true;
  }

  void stopWorkers() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    workCv_.notify_all();
    for (std::thread& t : threads_) t.join();
    threads_.clear();
  }

 private:
  void workerLoop(size_t worker) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      workCv_.wait(lock, [&] { return stop_ || nextTask_ < published_; });
      if (stop_) return;
      const uint64_t index = nextTask_++;
      const size_t slot = static_cast<size_t>(index % window_);
      lock.unlock();
      Error workError;
      const bool ok = stages_.work(index, slot, worker, &workError);
      lock.lock();
      ok_[slot] = ok ? 1 : 0;
      if (!ok) errors_[slot] = std::move(workError);
      done_[slot] = 1;
      doneCv_.notify_one();
    }
  }

  const uint64_t count_;
  const size_t window_;
  const OrderedBlockPipeline::Stages& stages_;
  std::mutex mutex_;
  std::condition_variable workCv_;
  std::condition_variable doneCv_;
  uint64_t published_ = 0;  // blocks filled and open to workers
  uint64_t nextTask_ = 0;   // next block a worker takes
  bool stop_ = false;
  std::vector<uint8_t> done_;
  std::vector<uint8_t> ok_;
  std::vector<Error> errors_;
  std::vector<std::thread> threads_;
};

}  // namespace

size_t OrderedBlockPipeline::windowForWorkers(int workers) {
  if (workers <= 1) return kInlineWindow;
  return 2 * static_cast<size_t>(workers) + 2;
}

bool OrderedBlockPipeline::run(uint64_t count, int workers, size_t window, const Stages& stages, Error* error) {
  if (count == 0) return true;
  if (window == 0) window = 1;
  if (workers <= 1 || count == 1) return runInline(count, window, stages, error);
  ThreadedRun threaded(count, window, stages);
  const size_t threads = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(workers), count));
  if (!threaded.startWorkers(threads)) return runInline(count, window, stages, error);
  const bool ok = threaded.coordinate(error);
  threaded.stopWorkers();
  return ok;
}

}  // namespace zephlore
