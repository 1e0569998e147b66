#include "helper/scheduler.h"

namespace zephlore {

KRScheduler& KRScheduler::sharedScheduler() {
  // Never destroyed: queue threads may still run while the process exits.
  static KRScheduler* scheduler = new KRScheduler;
  return *scheduler;
}

void KRScheduler::addAnalysisOperation(Operation operation) {
  sharedScheduler().queueAnalysisOperation(std::move(operation));
}

void KRScheduler::addCompressionOperation(Operation operation) {
  sharedScheduler().queueCompressionOperation(std::move(operation));
}

}  // namespace zephlore
