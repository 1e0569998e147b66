#include "base/sped_up_clock.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "base/log.h"

namespace zephlore {
namespace {

// A span scaled by `factor`, saturating instead of overflowing.
Duration scaled(Duration span, double factor, bool round_up) {
  const double ns = static_cast<double>(span.count()) * factor;
  if (ns >= 9.2e18) return Duration::max();
  if (ns <= -9.2e18) return Duration::min();
  return Duration(static_cast<int64_t>(round_up ? std::ceil(ns) : std::round(ns)));
}

}  // namespace

SpedUpClock::SpedUpClock(Clock& base, double speed)
    : base_(base), speed_(speed), origin_(base.now()), wall_origin_(base.wallNow()) {}

TimePoint SpedUpClock::now() const {
  return origin_ + scaled(base_.now() - origin_, speed_, false);
}

WallTime SpedUpClock::wallNow() const {
  return wall_origin_ + scaled(base_.wallNow() - wall_origin_, speed_, false);
}

TimePoint SpedUpClock::baseDeadline(TimePoint deadline) const {
  if (deadline == TimePoint::max()) return deadline;
  // Rounded up, so that waking on time on the base clock never reads as early here.
  const Duration offset = scaled(deadline - origin_, 1.0 / speed_, true);
  if (offset > TimePoint::max() - origin_) return TimePoint::max();
  return origin_ + offset;
}

void SpedUpClock::sleepUntil(TimePoint deadline) { base_.sleepUntil(baseDeadline(deadline)); }

bool SpedUpClock::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                            TimePoint deadline, const std::function<bool()>& ready) {
  return base_.waitUntil(lock, cv, baseDeadline(deadline), ready);
}

std::optional<Duration> SpedUpClock::realTimeUntil(TimePoint deadline) const {
  return base_.realTimeUntil(baseDeadline(deadline));
}

uint64_t SpedUpClock::addAdvanceObserver(std::function<void()> observer) {
  return base_.addAdvanceObserver(std::move(observer));
}

void SpedUpClock::removeAdvanceObserver(uint64_t id) { base_.removeAdvanceObserver(id); }

std::optional<double> parseClockSpeed(const std::string& text, std::string* problem) {
  const char* start = text.c_str();
  char* end = nullptr;
  errno = 0;
  const double speed = std::strtod(start, &end);
  if (text.empty() || end != start + text.size() || errno != 0 || !std::isfinite(speed) || speed <= 0) {
    if (problem) *problem = "\"" + text + "\" is not a number above 0";
    return std::nullopt;
  }
  return speed;
}

ClockFromEnvironment::ClockFromEnvironment() {
  const char* text = getenv("ZEPHLORE_CLOCK_SPEED");
  if (!text) return;
  std::string problem;
  std::optional<double> speed = parseClockSpeed(text, &problem);
  if (!speed) {
    KRLog("ZEPHLORE_CLOCK_SPEED ignored: %s", problem.c_str());
    return;
  }
  if (*speed == 1) return;
  sped_up_.emplace(system_, *speed);
  KRLog("ZEPHLORE_CLOCK_SPEED: time runs %g times faster (a testing aid)", *speed);
}

}  // namespace zephlore
