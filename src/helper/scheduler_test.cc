#include "helper/scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <latch>
#include <memory>
#include <mutex>
#include <vector>

namespace zephlore {
namespace {

// Records which operations have started and finished; tests wait on it
// instead of sleeping.
class Tracker {
 public:
  void started(int i) {
    change([&] {
      started_.push_back(i);
      peak_ = std::max(peak_, ++running_);
    });
  }
  void finished(int i) {
    change([&] {
      finished_.push_back(i);
      --running_;
    });
  }
  void waitStarted(size_t n) { wait([&] { return started_.size() >= n; }); }
  void waitFinished(size_t n) { wait([&] { return finished_.size() >= n; }); }
  std::vector<int> startedOrder() { return read(started_); }
  std::vector<int> finishedOrder() { return read(finished_); }
  int peak() { return read(peak_); }

 private:
  template <typename F>
  void change(F f) {
    // Notify under the lock: the waiting test may destroy us right after.
    std::lock_guard lock(mutex_);
    f();
    cv_.notify_all();
  }
  template <typename T>
  T read(const T& field) {
    std::lock_guard lock(mutex_);
    return field;
  }
  template <typename P>
  void wait(P ready) {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, ready);
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<int> started_, finished_;
  int running_ = 0, peak_ = 0;
};

TEST(Scheduler, ThreeAnalysesRunTwoAtATimeInSubmissionOrder) {
  KRScheduler& scheduler = KRScheduler::sharedScheduler();
  EXPECT_EQ(&scheduler, &KRScheduler::sharedScheduler());
  EXPECT_EQ(scheduler.analysisQueue().maxConcurrentOperationCount(), 2);
  EXPECT_EQ(scheduler.compressionQueue().maxConcurrentOperationCount(), 1);

  Tracker tracker;
  std::vector<std::unique_ptr<std::latch>> gates;
  for (int i = 0; i < 3; ++i) gates.push_back(std::make_unique<std::latch>(1));
  for (int i = 0; i < 3; ++i) {
    KRScheduler::addAnalysisOperation({[&, i] {
      tracker.started(i);
      gates[static_cast<size_t>(i)]->wait();
    }, [&, i] { tracker.finished(i); }});
  }
  tracker.waitStarted(2);
  EXPECT_EQ(tracker.startedOrder().size(), 2u);  // the first two are blocked: no third
  // The second finishing lets the third in while the first still runs.
  gates[1]->count_down();
  tracker.waitStarted(3);
  EXPECT_EQ(tracker.startedOrder().back(), 2);
  EXPECT_EQ(tracker.finishedOrder(), std::vector<int>{1});
  gates[0]->count_down();
  gates[2]->count_down();
  tracker.waitFinished(3);
  EXPECT_EQ(tracker.peak(), 2);
}

TEST(Scheduler, CompressionsNeverOverlapAndKeepOrder) {
  Tracker tracker;
  std::latch hold(1);
  for (int i = 0; i < 5; ++i) {
    // The instance form, through the single instance.
    KRScheduler::sharedScheduler().queueCompressionOperation({[&, i] {
      tracker.started(i);
      if (i == 0) hold.wait();  // everything queues up behind the first
      tracker.finished(i);
    }, nullptr});
  }
  tracker.waitStarted(1);
  hold.count_down();
  KRScheduler::sharedScheduler().compressionQueue().waitUntilAllOperationsAreFinished();
  EXPECT_EQ(tracker.peak(), 1);
  EXPECT_EQ(tracker.startedOrder(), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(tracker.finishedOrder(), (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(Scheduler, AnAnalysisAndACompressionRunSideBySide) {
  // Each waits for the other to have started: it can only end if both run
  // at once on their own queues.
  std::latch both(2);
  std::latch done(2);
  KRScheduler::addAnalysisOperation({[&] { both.arrive_and_wait(); }, [&] { done.count_down(); }});
  KRScheduler::addCompressionOperation(
      {[&] { both.arrive_and_wait(); }, [&] { done.count_down(); }});
  done.wait();
}

}  // namespace
}  // namespace zephlore
