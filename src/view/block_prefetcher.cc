#include "view/block_prefetcher.h"

namespace zephlore::view {
namespace {

constexpr size_t kMostQueued = 64;

}  // namespace

BlockPrefetcher::~BlockPrefetcher() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    queue_.clear();
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void BlockPrefetcher::post(std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || queue_.size() >= kMostQueued) return;
    if (threads_.empty()) {
      for (size_t i = 0; i < threadCount_; ++i) threads_.emplace_back([this] { run(); });
    }
    queue_.push_back(std::move(work));
  }
  wake_.notify_one();
}

void BlockPrefetcher::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
    if (stopping_) return;
    std::function<void()> work = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    work();
    work = nullptr;  // let go of what it holds outside the lock
    lock.lock();
  }
}

}  // namespace zephlore::view
