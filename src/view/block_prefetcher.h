// Inflates blocks ahead of sequential readers on a few threads of its own,
// so that the next blocks are in the cache when the kernel asks for them and
// a single reader still uses more than one core.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zephlore::view {

class BlockPrefetcher {
 public:
  explicit BlockPrefetcher(size_t threads) : threadCount_(threads) {}
  ~BlockPrefetcher();  // waits for the work in hand; drops what is queued
  BlockPrefetcher(const BlockPrefetcher&) = delete;
  BlockPrefetcher& operator=(const BlockPrefetcher&) = delete;

  // Queues `work`. Prefetching is only a hint: past a short queue the work
  // is dropped. The threads start with the first work (after the view went
  // into the background, which a fork would not survive).
  void post(std::function<void()> work);

 private:
  void run();

  const size_t threadCount_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_;
  std::vector<std::thread> threads_;
  bool stopping_ = false;
};

}  // namespace zephlore::view
