// KRScheduler: the two work queues of the pipeline. Folder analyses run on
// the analysis queue, at most 2 side by side; compression batches run on the
// compression queue, one at a time, so that two compressions never rewrite
// the disk at once. Operations start in submission order; nothing cancels or
// drains them, the work units check pause and cancellation themselves.
#pragma once

#include "base/operation_queue.h"
#include "base/shared_instance.h"

namespace zephlore {

class KRScheduler {
 public:
  static constexpr int kMaxConcurrentAnalyses = 2;
  static constexpr int kMaxConcurrentCompressions = 1;

  // The single instance: made on first use, never destroyed.
  static KRScheduler& sharedScheduler() { return sharedInstance().get(); }
  // Where tests install their own (ScopedShared<KRScheduler>).
  static SharedInstance<KRScheduler>& sharedInstance();

  // Class forms: forward to the single instance. Any thread.
  static void addAnalysisOperation(Operation operation);
  static void addCompressionOperation(Operation operation);

  // Instance forms.
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
  friend class ScopedShared<KRScheduler>;
  KRScheduler() = default;

  OperationQueue analysisQueue_{kMaxConcurrentAnalyses};
  OperationQueue compressionQueue_{kMaxConcurrentCompressions};
};

}  // namespace zephlore
