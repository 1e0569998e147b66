#include "base/clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

namespace zephlore {
namespace {

using namespace std::chrono_literals;

TEST(ManualClock, TimeMovesOnlyWhenAdvanced) {
  ManualClock clock;
  const TimePoint start = clock.now();
  const WallTime wall = clock.wallNow();
  EXPECT_EQ(clock.now(), start);

  clock.advance(seconds(1.5));
  EXPECT_EQ(clock.now() - start, 1500ms);
  EXPECT_EQ(clock.wallNow() - wall, 1500ms);

  clock.advance(-10s);  // monotonic time never goes back
  EXPECT_EQ(clock.now() - start, 1500ms);

  clock.setWall(wall - 24h);  // a calendar change leaves monotonic time alone
  EXPECT_EQ(clock.wallNow(), wall - 24h);
  EXPECT_EQ(clock.now() - start, 1500ms);

  EXPECT_FALSE(clock.realTimeUntil(start + 1h));

  // Seconds from settings round to the nearest tick and saturate.
  EXPECT_EQ(seconds(0.3), 300ms);
  EXPECT_EQ(seconds(-0.3), -300ms);
  EXPECT_EQ(seconds(1e300), Duration::max());
  EXPECT_EQ(seconds(-1e300), Duration::min());
  EXPECT_EQ(seconds(std::nan("")), Duration(0));
}

TEST(ManualClock, SleepersWakeInDeadlineOrderOnAdvance) {
  ManualClock clock;
  const TimePoint start = clock.now();
  std::vector<TimePoint> woke(3);
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      clock.sleepFor(seconds(10.0 * (i + 1)));
      woke[static_cast<size_t>(i)] = clock.now();
    });
  }
  clock.waitForSleepers(3);

  clock.advance(seconds(9.999999));  // just short: nobody leaves
  EXPECT_EQ(clock.sleepers(), 3);
  clock.advance(1us);
  threads[0].join();
  EXPECT_EQ(woke[0] - start, 10s);
  EXPECT_EQ(clock.sleepers(), 2);

  clock.advance(25s);  // passes both remaining deadlines at once
  threads[1].join();
  threads[2].join();
  EXPECT_EQ(clock.sleepers(), 0);
  EXPECT_EQ(woke[2] - start, 35s);
}

TEST(ManualClock, WaitUntilEndsOnReadinessOrDeadline) {
  ManualClock clock;
  std::mutex mutex;
  std::condition_variable cv;
  bool ready = false;

  // Deadlines: waiters on one condition each leave at their own, in no real
  // time, and not a tick sooner.
  const TimePoint start = clock.now();
  std::vector<int> timedOut(6, 0);
  std::vector<std::thread> timed;
  for (int i = 0; i < 6; ++i) {
    timed.emplace_back([&, i] {
      std::unique_lock lock(mutex);
      timedOut[static_cast<size_t>(i)] = !clock.waitUntil(lock, cv, start + seconds(i + 1.0), [&] { return ready; });
    });
  }
  clock.waitForSleepers(6);
  for (int i = 0; i < 6; ++i) {
    clock.advance(1s - 1ns);
    EXPECT_EQ(clock.sleepers(), 6 - i);
    clock.advance(1ns);
    timed[static_cast<size_t>(i)].join();
    EXPECT_TRUE(timedOut[static_cast<size_t>(i)]) << i;
  }

  // Readiness, signalled by the caller's own condition variable.
  bool result = false;
  std::thread signalled([&] {
    std::unique_lock lock(mutex);
    result = clock.waitUntil(lock, cv, clock.now() + 1h, [&] { return ready; });
  });
  clock.waitForSleepers(1);
  {
    std::lock_guard lock(mutex);
    ready = true;
  }
  cv.notify_all();
  signalled.join();
  EXPECT_TRUE(result);
  EXPECT_EQ(clock.sleepers(), 0);

  // Already past the deadline: answers at once.
  std::unique_lock lock(mutex);
  ready = false;
  EXPECT_FALSE(clock.waitUntil(lock, cv, clock.now(), [&] { return ready; }));
}

}  // namespace
}  // namespace zephlore
