// ZEPHLORE_CLOCK_SPEED=N, a testing aid: the helper's clock runs N times
// faster than real time, so every wait is N times shorter and every age it
// measures (since a file or folder changed, since a sweep) N times longer,
// and all of them stay in step. End-to-end tests run the real helper with it.
//
// Both the monotonic and the calendar clock run faster from the moment the
// clock is made: a file written after that looks N times older than it is
// (or more); one written before looks older only by the time since.
#pragma once

#include <optional>
#include <string>

#include "base/clock.h"

namespace zephlore {

class SpedUpClock final : public Clock {
 public:
  // `base` (usually the system clock) keeps the real time; it must outlive
  // this clock. `speed` is positive.
  SpedUpClock(Clock& base, double speed);

  double speed() const { return speed_; }

  TimePoint now() const override;
  WallTime wallNow() const override;
  void sleepUntil(TimePoint deadline) override;
  bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline, const std::function<bool()>& ready) override;
  std::optional<Duration> realTimeUntil(TimePoint deadline) const override;
  uint64_t addAdvanceObserver(std::function<void()> observer) override;
  void removeAdvanceObserver(uint64_t id) override;

 private:
  // The base clock's moment at which this clock reaches `deadline`.
  TimePoint baseDeadline(TimePoint deadline) const;

  Clock& base_;
  const double speed_;
  const TimePoint origin_;  // both clocks agree here
  const WallTime wall_origin_;
};

// The speed in ZEPHLORE_CLOCK_SPEED's text: a finite number above 0.
// None, with the reason, for anything else.
std::optional<double> parseClockSpeed(const std::string& text, std::string* problem);

// The helper's clock, made once in its main: the system clock, sped up when
// ZEPHLORE_CLOCK_SPEED asks for a speed other than 1. A bad value is logged
// and ignored.
class ClockFromEnvironment {
 public:
  ClockFromEnvironment();
  ClockFromEnvironment(const ClockFromEnvironment&) = delete;
  ClockFromEnvironment& operator=(const ClockFromEnvironment&) = delete;

  Clock& clock() { return sped_up_ ? static_cast<Clock&>(*sped_up_) : system_; }
  double speed() const { return sped_up_ ? sped_up_->speed() : 1; }

 private:
  SystemClock system_;
  std::optional<SpedUpClock> sped_up_;  // refers to system_
};

}  // namespace zephlore
