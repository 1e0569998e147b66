#include "base/operation_queue.h"

#include <exception>
#include <system_error>

#include "base/log.h"

namespace zephlore {
namespace {

// A failing step must neither end the worker thread nor skip the completion
// action, which its submitter relies on to release what the work held.
void runGuarded(const std::function<void()>& fn, const char* what) {
  if (!fn) return;
  try {
    fn();
  } catch (const std::exception& e) {
    KRLog("*** OperationQueue: an operation's %s ended with an exception: %s", what, e.what());
  } catch (...) {
    KRLog("*** OperationQueue: an operation's %s ended with an exception", what);
  }
}

}  // namespace

OperationQueue::OperationQueue(int maxConcurrentOperationCount)
    : max_concurrent_(maxConcurrentOperationCount > 0 ? maxConcurrentOperationCount : 1) {}

OperationQueue::~OperationQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  work_available_.notify_all();
  for (std::thread& t : workers_) t.join();
}

void OperationQueue::startWorkersLocked() {
  while (workers_.size() < static_cast<size_t>(max_concurrent_)) {
    try {
      workers_.emplace_back([this] { workerLoop(); });
    } catch (const std::system_error& e) {
      // Queued work waits for the workers that did start (or a later try).
      KRLog("*** OperationQueue: cannot start a worker thread: %s", e.what());
      return;
    }
  }
}

void OperationQueue::addOperation(Operation operation) {
  {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(operation));
    startWorkersLocked();
  }
  work_available_.notify_one();
}

size_t OperationQueue::operationCount() const {
  std::lock_guard lock(mutex_);
  return pending_.size() + running_;
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [&] { return pending_.empty() && running_ == 0; });
}

void OperationQueue::workerLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    work_available_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
    if (pending_.empty()) return;  // stopping, and everything has run
    Operation operation = std::move(pending_.front());
    pending_.pop_front();
    ++running_;
    lock.unlock();
    runGuarded(operation.work, "work");
    runGuarded(operation.completion, "completion action");
    operation = Operation{};  // release captures before counting it finished
    lock.lock();
    --running_;
    if (pending_.empty() && running_ == 0) idle_.notify_all();
  }
}

}  // namespace zephlore
