// KRScheduler: the two work queues of the pipeline. Folder analyses run on
// the analysis queue, at most 2 side by side; compression batches run on the
// compression queue, one at a time, so that two compressions never rewrite
// the disk at once. Operations start in submission order; nothing cancels or
// drains them, the work units check pause and cancellation themselves.
#pragma once

#include "base/operation_queue.h"

namespace zephlore {

class KRScheduler {
 public:
  static constexpr int kMaxConcurrentAnalyses = 2;
  static constexpr int kMaxConcurrentCompressions = 1;

  // The helper owns one; its queues' threads end with it.
  KRScheduler() = default;

  // Any thread.
  void queueAnalysisOperation(Operation operation) {
    analysisQueue_.addOperation(std::move(operation));
  }
  void queueCompressionOperation(Operation operation) {
    compressionQueue_.addOperation(std::move(operation));
  }

  OperationQueue& analysisQueue() { return analysisQueue_; }
  OperationQueue& compressionQueue() { return compressionQueue_; }

  KRScheduler(const KRScheduler&) = delete;
  KRScheduler& operator=(const KRScheduler&) = delete;

 private:
  OperationQueue analysisQueue_{kMaxConcurrentAnalyses};
  OperationQueue compressionQueue_{kMaxConcurrentCompressions};
};

}  // namespace zephlore
