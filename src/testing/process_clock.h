#pragma once

#include "base/clock.h"

namespace zephlore::testkit {

// The main run loop keeps the clock it was made with for the life of the
// process. Tests that drive it therefore share one manual clock: installed as
// the shared clock while a test runs, never destroyed, its time going on
// from one test to the next. Declare it before anything uses the main loop.
class ProcessManualClock {
 public:
  ProcessManualClock() { Clock::setShared(&clock()); }
  ~ProcessManualClock() { Clock::setShared(nullptr); }
  ProcessManualClock(const ProcessManualClock&) = delete;
  ProcessManualClock& operator=(const ProcessManualClock&) = delete;

  ManualClock& operator*() { return clock(); }
  ManualClock* operator->() { return &clock(); }

  static ManualClock& clock() {
    static ManualClock* const instance = new ManualClock;  // the main loop may outlive any test
    return *instance;
  }
};

}  // namespace zephlore::testkit
