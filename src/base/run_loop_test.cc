#include "base/run_loop.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "testing/bounded_wait.h"

namespace zephlore {
namespace {

using namespace std::chrono_literals;

TEST(RunLoop, DelayedCallsFireExactlyWhenTimeReachesThem) {
  ManualClock clock;
  RunLoop loop(clock);
  std::vector<std::string> ran;
  loop.performAfterDelay(5s, [&] { ran.push_back("5s"); });
  loop.performAfterDelay(2s, [&] { ran.push_back("2s-a"); });
  loop.performAfterDelay(2s, [&] { ran.push_back("2s-b"); });
  loop.performAfterDelay(0s, [&] { ran.push_back("now"); });

  loop.runUntilIdle();
  EXPECT_EQ(ran, std::vector<std::string>{"now"});
  clock.advance(seconds(1.999999999));
  loop.runUntilIdle();
  EXPECT_EQ(ran.size(), 1u);
  clock.advance(1ns);
  loop.runUntilIdle();
  EXPECT_EQ(ran, (std::vector<std::string>{"now", "2s-a", "2s-b"}));  // ties keep order
  clock.advance(3s);
  loop.runUntilIdle();
  EXPECT_EQ(ran.back(), "5s");
  EXPECT_EQ(loop.runUntilIdle(), 0);
}

TEST(RunLoop, CancellationByIdAndByTargetAndKey) {
  ManualClock clock;
  RunLoop loop(clock);
  int a = 0, b = 0;
  std::vector<std::string> ran;

  RunLoop::TimerId id = loop.performAfterDelay(1s, [&] { ran.push_back("by-id"); });
  EXPECT_TRUE(loop.isScheduled(id));
  EXPECT_TRUE(loop.cancel(id));
  EXPECT_FALSE(loop.cancel(id));
  EXPECT_FALSE(loop.isScheduled(id));

  // The debounce pattern: every pending call of (target, key) goes.
  loop.performAfterDelay(&a, "tick", 1s, [&] { ran.push_back("a-tick-1"); });
  loop.performAfterDelay(&a, "tick", 2s, [&] { ran.push_back("a-tick-2"); });
  loop.performAfterDelay(&a, "save", 1s, [&] { ran.push_back("a-save"); });
  loop.performAfterDelay(&b, "tick", 1s, [&] { ran.push_back("b-tick"); });
  loop.cancelPerform(&a, "tick");
  loop.performAfterDelay(&a, "tick", 3s, [&] { ran.push_back("a-tick-3"); });

  // A call that cancels another one due in the same pass wins.
  RunLoop::TimerId victim = 0;
  loop.performAfterDelay(4s, [&] { loop.cancel(victim); });
  victim = loop.performAfterDelay(4s, [&] { ran.push_back("victim"); });

  clock.advance(10s);
  loop.runUntilIdle();
  EXPECT_EQ(ran, (std::vector<std::string>{"a-save", "b-tick", "a-tick-3"}));
}

TEST(RunLoop, SeventeenHourRepeatingTimerCoalescesMissedFirings) {
  ManualClock clock;
  RunLoop loop(clock);
  int fired = 0;
  RunLoop::TimerId id = loop.scheduleRepeating(17h, [&] { ++fired; });

  clock.advance(17h - 1us);
  loop.runUntilIdle();
  EXPECT_EQ(fired, 0);
  clock.advance(1us);
  loop.runUntilIdle();
  EXPECT_EQ(fired, 1);

  // Three whole intervals missed (a suspended machine): one firing only, and
  // the timer stays on its grid: next at 5 x 17 h from the start.
  clock.advance(3 * 17h + 5us);
  loop.runUntilIdle();
  EXPECT_EQ(fired, 2);
  clock.advance(17h - 6us);
  loop.runUntilIdle();
  EXPECT_EQ(fired, 2);
  clock.advance(1us);
  loop.runUntilIdle();
  EXPECT_EQ(fired, 3);

  EXPECT_TRUE(loop.isScheduled(id));
  EXPECT_TRUE(loop.cancel(id));
  clock.advance(100h);
  loop.runUntilIdle();
  EXPECT_EQ(fired, 3);

  // A repeating timer may cancel itself from its own callback.
  int self = 0;
  RunLoop::TimerId self_id = 0;
  self_id = loop.scheduleRepeating(2s, [&] {
    if (++self == 2) loop.cancel(self_id);
  });
  for (int i = 0; i < 5; ++i) {
    clock.advance(2s);
    loop.runUntilIdle();
  }
  EXPECT_EQ(self, 2);
}

TEST(RunLoop, ZeroDelayReArmingDoesNotStarvePostedCalls) {
  ManualClock clock;
  RunLoop loop(clock);
  int count = 0;
  int count_when_posted_ran = -1;
  std::function<void()> rearm = [&] {
    if (++count == 1) loop.post([&] { count_when_posted_ran = count; });
    if (count < 1000) loop.performAfterDelay(0s, rearm);
  };
  loop.performAfterDelay(0s, rearm);
  // Time never moves here: every re-armed call is due at once and the loop
  // must not block in poll() waiting for a clock that will not advance.
  loop.runUntil([&] { return count >= 1000; });
  EXPECT_EQ(count, 1000);
  EXPECT_GE(count_when_posted_ran, 1);
  EXPECT_LT(count_when_posted_ran, 10);
}

TEST(RunLoop, PostAndWaitFromManyWorkersAtOnce) {
  ManualClock manual;
  RunLoop loop(manual);
  std::thread loop_thread([&] { loop.run(); });

  constexpr int kWorkers = 8;
  constexpr int kHops = 200;
  int total = 0;  // touched on the loop thread only
  std::vector<std::vector<int>> seen(kWorkers);
  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      for (int i = 0; i < kHops; ++i) {
        if (i % 2) {
          loop.post([&, w, i] {
            ++total;
            seen[static_cast<size_t>(w)].push_back(i);
          });
        } else {
          ASSERT_TRUE(loop.postAndWait([&, w, i] {
            EXPECT_TRUE(loop.isLoopThread());
            ++total;
            seen[static_cast<size_t>(w)].push_back(i);
            // A waiting hop made on the loop's own thread runs inline.
            bool inner = false;
            EXPECT_TRUE(loop.postAndWait([&] { inner = true; }));
            EXPECT_TRUE(inner);
          }));
        }
      }
    });
  }
  for (auto& t : workers) t.join();
  int observed = 0;
  ASSERT_TRUE(loop.postAndWait([&] { observed = total; }));
  EXPECT_EQ(observed, kWorkers * kHops);
  for (const auto& calls : seen) {
    ASSERT_EQ(calls.size(), static_cast<size_t>(kHops));
    for (int i = 0; i < kHops; ++i) EXPECT_EQ(calls[static_cast<size_t>(i)], i);  // posting order
  }
  EXPECT_FALSE(loop.isLoopThread());

  // A delayed call made from a worker fires when the test moves time.
  std::atomic<bool> fired{false};
  std::thread([&] { loop.performAfterDelay(30s, [&] { fired = true; loop.stop(); }); }).join();
  manual.advance(30s);
  loop_thread.join();
  EXPECT_TRUE(fired);
}

TEST(RunLoop, ShutdownReleasesWaitingHops) {
  ManualClock clock;
  RunLoop loop(clock);
  std::atomic<int> ran{0};
  bool answer = true;
  std::thread worker([&] { answer = loop.postAndWait([&] { ++ran; }); });
  const auto until = std::chrono::steady_clock::now() + testkit::kWaitLimit;
  while (loop.pendingCalls() == 0 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  loop.shutdown();
  worker.join();
  EXPECT_FALSE(answer);
  EXPECT_FALSE(loop.postAndWait([&] { ++ran; }));
  loop.post([&] { ++ran; });
  loop.runUntilIdle();
  EXPECT_EQ(ran, 0);
}

TEST(RunLoop, WatchedDescriptorsAndClosedOnes) {
  ManualClock clock;
  RunLoop loop(clock);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::vector<short> events;
  RunLoop::WatchId id = loop.watchFd(fds[0], POLLIN, [&](short revents) {
    events.push_back(revents);
    char c;
    ASSERT_EQ(read(fds[0], &c, 1), 1);
  });
  EXPECT_EQ(loop.runUntilIdle(), 0);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  EXPECT_EQ(loop.runUntilIdle(), 1);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_TRUE(events[0] & POLLIN);
  loop.unwatchFd(id);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  EXPECT_EQ(loop.runUntilIdle(), 0);

  // A descriptor closed while watched is dropped with a logged line rather
  // than spinning the loop.
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  int called = 0;
  loop.watchFd(fds[0], POLLIN, [&](short) { ++called; });
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(loop.runUntilIdle(), 0);
  EXPECT_EQ(called, 0);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("was closed while watched"), std::string::npos);
}

TEST(RunLoop, RunUntilGivesUpAtItsLimitOnTheLoopsClock) {
  ManualClock clock;
  RunLoop loop(clock);
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  // A timer just inside the limit still fires; the wait then ends unmet.
  bool fired = false;
  loop.performAfterDelay(4s, [&] { fired = true; });
  loop.post([&] { clock.advance(5s); });
  EXPECT_FALSE(loop.runUntil([] { return false; }, 5s));
  EXPECT_TRUE(fired);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("time limit"), std::string::npos);

  // Met before the limit: true, and nothing logged.
  loop.post([] {});
  EXPECT_TRUE(loop.runUntil([&] { return fired; }, 1s));
  EXPECT_EQ(lines.size(), 1u);
}

}  // namespace
}  // namespace zephlore
