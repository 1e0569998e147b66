// The window's worker without a display: calls run off the caller's thread,
// one at a time and in order; results come back only through the main
// loop's Deliver; stopping drops queued reads, keeps the user's actions and
// waits for the call in flight. Built in the sanitizer trees too.
#include "preferences/pane_worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "preferences/fake_pane_model_for_tests.h"
#include "testing/delivery_queue.h"

namespace zephlore::preferences {
namespace {

using namespace std::chrono_literals;

bool waitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(PaneWorkerTest, RunsCallsInOrderOffTheCallersThreadAndHandsResultsToTheMainLoop) {
  FakePaneModel model;
  model.extensions = {"iso"};
  testkit::DeliveryQueue loop;
  PaneWorker worker(model, loop.deliver());
  std::vector<std::string> seen;
  worker.run<pane::Outcome>([](pane::PaneModel& m) { return m.addExcludedExtension("zip"); },
                            [&](pane::Outcome outcome) { seen.push_back("added:" + outcome); },
                            PaneWorker::Kind::kAction);
  worker.run<std::vector<std::string>>([](pane::PaneModel& m) { return m.excludedExtensions(); },
                                       [&](std::vector<std::string> read) { seen.push_back("read:" + read.back()); });
  EXPECT_EQ(worker.pending(), 2u);
  EXPECT_TRUE(seen.empty());  // only on the main loop
  ASSERT_TRUE(loop.run(2));
  EXPECT_EQ(seen, (std::vector<std::string>{"added:", "read:zip"}));
  EXPECT_EQ(worker.pending(), 0u);
  EXPECT_EQ(model.locked([&] { return model.callsOnTestThread; }), 0);
}

TEST(PaneWorkerTest, StoppingWaitsForTheCallInFlightKeepsActionsAndDropsReadsAndResults) {
  FakePaneModel model;
  testkit::DeliveryQueue loop;
  PaneWorker worker(model, loop.deliver());
  model.closeGate();
  int shown = 0;
  worker.run<pane::PaneSettings>([](pane::PaneModel& m) { return m.settings(); },
                                 [&](pane::PaneSettings) { ++shown; });
  ASSERT_TRUE(waitFor([&] { return model.waitingAtGate() == 1; }));
  worker.run<pane::Outcome>([](pane::PaneModel& m) { return m.setActive(false); }, [&](pane::Outcome) { ++shown; },
                            PaneWorker::Kind::kAction);
  std::atomic<bool> dropped = false;
  std::shared_ptr<int> token(new int(0), [&](int* held) {
    delete held;
    dropped = true;
  });
  worker.run<pane::HelperState>([token](pane::PaneModel& m) { return m.helperState(); },
                                [&](pane::HelperState) { ++shown; });
  token.reset();

  // Let go of the call in flight once stopping dropped the queued read.
  std::thread opener([&] {
    waitFor([&] { return dropped.load(); });
    model.openGate();
  });
  worker.stop();
  opener.join();
  // The user's switch reached the model; the queued read never ran.
  EXPECT_EQ(model.callsMade(), std::vector<std::string>{"setActive 0"});
  EXPECT_EQ(model.locked([&] { return model.helperStateReads; }), 0);
  // Both finished calls were handed over, and do nothing any more.
  EXPECT_EQ(loop.waiting(), 2u);
  ASSERT_TRUE(loop.run(2));
  EXPECT_EQ(shown, 0);
  worker.run<pane::PaneSettings>([](pane::PaneModel& m) { return m.settings(); },
                                 [&](pane::PaneSettings) { ++shown; });
  EXPECT_EQ(loop.waiting(), 0u);
}

}  // namespace
}  // namespace zephlore::preferences
