#include "helper/lifecycle/scheduler.h"

namespace zephlore {

SharedInstance<KRScheduler>& KRScheduler::sharedInstance() {
  static SharedInstance<KRScheduler> instance([] { return new KRScheduler(); });
  return instance;
}

void KRScheduler::addAnalysisOperation(Operation operation) {
  sharedScheduler().queueAnalysisOperation(std::move(operation));
}

void KRScheduler::addCompressionOperation(Operation operation) {
  sharedScheduler().queueCompressionOperation(std::move(operation));
}

}  // namespace zephlore
