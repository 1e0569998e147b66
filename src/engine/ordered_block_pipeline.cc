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

// Every thread, the caller's included, runs the same loop: take the next
// block and fill it (in block order, one thread at a time), transform it,
// then drain whatever finished blocks are next in order. No thread only
// coordinates, so on a machine with as many cores as workers none of them is
// pushed aside, and a thread sleeps only when the window is full.
class ThreadedRun {
 public:
  ThreadedRun(uint64_t count, size_t window, const OrderedBlockPipeline::Stages& stages)
      : count_(count), window_(window), stages_(stages), done_(window, 0), ok_(window, 0), errors_(window) {}

  ~ThreadedRun() { joinHelpers(); }

  // Runs with the caller and up to `workers - 1` more threads.
  bool run(size_t workers, Error* error) {
    for (size_t w = 1; w < workers; ++w) {
      try {
        helpers_.emplace_back([this, w] { loop(w); });
      } catch (const std::system_error&) {
        break;  // run with the threads we have
      }
    }
    loop(0);
    joinHelpers();
    if (failed_) {
      if (error) *error = std::move(failure_);
      return false;
    }
    return true;
  }

 private:
  void loop(size_t worker) {
    for (;;) {
      uint64_t index;
      bool ok;
      Error stageError;
      {
        std::unique_lock<std::mutex> fillLock(fillMutex_);
        {
          std::unique_lock<std::mutex> lock(mutex_);
          if (stop_ || next_ >= count_) return;
          index = next_;
          // The block's slot is free once the block a window earlier is drained.
          slotFreed_.wait(lock, [&] { return stop_ || index - drained_ < window_; });
          if (stop_) return;
          ++next_;
        }
        ok = stages_.fill(index, slot(index), 1, &stageError);
        if (!ok) {
          std::lock_guard<std::mutex> lock(mutex_);
          next_ = count_;  // nothing after a block that could not be read
        }
      }
      if (ok) ok = stages_.work(index, slot(index), worker, &stageError);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        ok_[slot(index)] = ok ? 1 : 0;
        if (!ok) errors_[slot(index)] = std::move(stageError);
        done_[slot(index)] = 1;
      }
      drainWhatIsReady();
    }
  }

  // Drains finished blocks in order. One thread drains at a time; a block
  // finished while another thread drained is picked up by that thread, which
  // looks again after letting go.
  void drainWhatIsReady() {
    for (;;) {
      {
        std::unique_lock<std::mutex> drainLock(drainMutex_, std::try_to_lock);
        if (!drainLock.owns_lock()) return;
        for (;;) {
          uint64_t index;
          {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stop_ || drained_ >= count_ || !done_[slot(drained_)]) break;
            index = drained_;
            if (!ok_[slot(index)]) {
              stopWith(std::move(errors_[slot(index)]));
              break;
            }
          }
          Error drainError;
          const bool ok = stages_.drain(index, slot(index), &drainError);
          {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!ok) {
              stopWith(std::move(drainError));
              break;
            }
            done_[slot(index)] = 0;
            ++drained_;
          }
          slotFreed_.notify_all();
        }
      }
      std::lock_guard<std::mutex> lock(mutex_);
      if (stop_ || drained_ >= count_ || !done_[slot(drained_)]) return;
    }
  }

  // Called with mutex_ held.
  void stopWith(Error error) {
    failed_ = true;
    failure_ = std::move(error);
    stop_ = true;
    slotFreed_.notify_all();
  }

  void joinHelpers() {
    for (std::thread& t : helpers_) t.join();
    helpers_.clear();
  }

  size_t slot(uint64_t index) const { return static_cast<size_t>(index % window_); }

  const uint64_t count_;
  const size_t window_;
  const OrderedBlockPipeline::Stages& stages_;
  std::mutex fillMutex_;   // held while a block is taken and filled
  std::mutex drainMutex_;  // held by the thread draining
  std::mutex mutex_;       // guards everything below
  std::condition_variable slotFreed_;
  uint64_t next_ = 0;      // next block to take
  uint64_t drained_ = 0;   // blocks drained
  bool stop_ = false;
  bool failed_ = false;
  Error failure_;
  std::vector<uint8_t> done_;
  std::vector<uint8_t> ok_;
  std::vector<Error> errors_;
  std::vector<std::thread> helpers_;
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
  return threaded.run(threads, error);
}

}  // namespace zephlore
