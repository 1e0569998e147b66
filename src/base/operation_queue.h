// A small operation queue: operations start in submission order on a fixed
// pool of worker threads, at most `maxConcurrentOperationCount` at a time.
// An operation's completion action runs right after its work returns, on the
// same worker thread (never the main thread), before that worker takes the
// next operation.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zephlore {

struct Operation {
  std::function<void()> work;
  std::function<void()> completion;  // optional
};

class OperationQueue {
 public:
  explicit OperationQueue(int maxConcurrentOperationCount);
  // Lets every queued operation run to its end, then joins the workers.
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  // Any thread. An operation without work runs only its completion.
  void addOperation(Operation operation);
  void addOperation(std::function<void()> work, std::function<void()> completion = nullptr) {
    addOperation(Operation{std::move(work), std::move(completion)});
  }

  int maxConcurrentOperationCount() const { return max_concurrent_; }
  // Operations queued or running.
  size_t operationCount() const;
  // Blocks until no operation is queued or running. Not from a worker.
  void waitUntilAllOperationsAreFinished();

 private:
  void workerLoop();
  void startWorkersLocked();

  const int max_concurrent_;
  mutable std::mutex mutex_;
  std::condition_variable work_available_;
  std::condition_variable idle_;
  std::deque<Operation> pending_;
  size_t running_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace zephlore
