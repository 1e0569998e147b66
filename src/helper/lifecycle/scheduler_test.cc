#include "helper/lifecycle/scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "testing/bounded_wait.h"

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
  [[nodiscard]] bool waitStarted(size_t n) { return wait([&] { return started_.size() >= n; }); }
  [[nodiscard]] bool waitFinished(size_t n) { return wait([&] { return finished_.size() >= n; }); }
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
  bool wait(P ready) {
    std::unique_lock lock(mutex_);
    return testkit::boundedWait(lock, cv_, ready);
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<int> started_, finished_;
  int running_ = 0, peak_ = 0;
};

TEST(Scheduler, ThreeAnalysesRunTwoAtATimeInSubmissionOrder) {
  Tracker tracker;
  std::vector<std::unique_ptr<testkit::BoundedLatch>> gates;
  // Declared last, so its queues finish before what they use goes away.
  KRScheduler scheduler;
  EXPECT_EQ(scheduler.analysisQueue().maxConcurrentOperationCount(), 2);
  EXPECT_EQ(scheduler.compressionQueue().maxConcurrentOperationCount(), 1);

  for (int i = 0; i < 3; ++i) gates.push_back(std::make_unique<testkit::BoundedLatch>(1));
  for (int i = 0; i < 3; ++i) {
    scheduler.queueAnalysisOperation({[&, i] {
      tracker.started(i);
      EXPECT_TRUE(gates[static_cast<size_t>(i)]->wait());
    }, [&, i] { tracker.finished(i); }});
  }
  ASSERT_TRUE(tracker.waitStarted(2));
  EXPECT_EQ(tracker.startedOrder().size(), 2u);  // the first two are blocked: no third
  // The second finishing lets the third in while the first still runs.
  gates[1]->countDown();
  ASSERT_TRUE(tracker.waitStarted(3));
  EXPECT_EQ(tracker.startedOrder().back(), 2);
  EXPECT_EQ(tracker.finishedOrder(), std::vector<int>{1});
  gates[0]->countDown();
  gates[2]->countDown();
  ASSERT_TRUE(tracker.waitFinished(3));
  EXPECT_EQ(tracker.peak(), 2);
}

TEST(Scheduler, CompressionsNeverOverlapKeepOrderAndRunBesideAnAnalysis) {
  Tracker tracker;
  // The first compression and the analysis each wait for the other to have
  // started: they can only end if both run at once on their own queues.
  testkit::BoundedLatch both(2), analysisDone(1);
  KRScheduler scheduler;
  for (int i = 0; i < 5; ++i) {
    scheduler.queueCompressionOperation({[&, i] {
      tracker.started(i);
      if (i == 0) {
        EXPECT_TRUE(both.arriveAndWait());  // everything queues up behind the first
      }
      tracker.finished(i);
    }, nullptr});
  }
  scheduler.queueAnalysisOperation({[&] { EXPECT_TRUE(both.arriveAndWait()); }, [&] { analysisDone.countDown(); }});
  ASSERT_TRUE(analysisDone.wait());
  scheduler.compressionQueue().waitUntilAllOperationsAreFinished();
  EXPECT_EQ(tracker.peak(), 1);
  EXPECT_EQ(tracker.startedOrder(), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(tracker.finishedOrder(), (std::vector<int>{0, 1, 2, 3, 4}));
}

}  // namespace
}  // namespace zephlore
