#include "base/sped_up_clock.h"

#include <gtest/gtest.h>

#include <thread>

namespace zephlore {
namespace {

using namespace std::chrono_literals;

// Over a manual base clock: one real second reads as 100 on both clocks, and
// a 30 s wait ends after 0.3 s of base time, not a nanosecond sooner.
TEST(SpedUpClock, WaitsAreShorterAndAgesLongerByTheSpeed) {
  ManualClock base;
  SpedUpClock clock(base, 100);
  const TimePoint start = clock.now();
  const WallTime wall = clock.wallNow();
  const WallTime modified = base.wallNow();  // a file written now

  base.advance(1s);
  EXPECT_EQ(clock.now() - start, 100s);
  EXPECT_EQ(clock.wallNow() - wall, 100s);
  EXPECT_EQ(clock.wallNow() - modified, 100s) << "the file's age";

  std::thread sleeper([&] { clock.sleepFor(30s); });
  base.waitForSleepers(1);
  base.advance(299ms);
  EXPECT_EQ(base.sleepers(), 1) << "woken before its time";
  base.advance(1ms);
  sleeper.join();
  EXPECT_GE(clock.now() - start, 130s);

  std::mutex mutex;
  std::condition_variable cv;
  bool ready = false;
  std::thread waiter([&] {
    std::unique_lock lock(mutex);
    EXPECT_FALSE(clock.waitUntil(lock, cv, clock.now() + 15s, [&] { return ready; }));
  });
  base.waitForSleepers(1);
  base.advance(150ms);
  waiter.join();
}

TEST(SpedUpClock, EnvironmentSpeedsUpOnlyForANumberAboveZero) {
  std::string problem;
  EXPECT_EQ(parseClockSpeed("2.5", &problem), 2.5);
  for (const char* bad : {"", "fast", "10x", "0", "-4", "inf", "nan", "1e999"}) {
    problem.clear();
    EXPECT_FALSE(parseClockSpeed(bad, &problem)) << bad;
    EXPECT_NE(problem.find("not a number above 0"), std::string::npos) << bad;
  }
  setenv("ZEPHLORE_CLOCK_SPEED", "nonsense", 1);
  {
    ClockFromEnvironment made;
    EXPECT_EQ(made.speed(), 1);
    EXPECT_NE(dynamic_cast<SystemClock*>(&made.clock()), nullptr);
  }
  setenv("ZEPHLORE_CLOCK_SPEED", "50", 1);
  {
    ClockFromEnvironment made;
    EXPECT_EQ(made.speed(), 50);
    auto* sped_up = dynamic_cast<SpedUpClock*>(&made.clock());
    ASSERT_NE(sped_up, nullptr);
    EXPECT_EQ(sped_up->speed(), 50);
  }
  unsetenv("ZEPHLORE_CLOCK_SPEED");
}

}  // namespace
}  // namespace zephlore
