// Reaching zephlore-helper from the pane's side (the window, the command):
// starting it when no copy owns its bus name, waiting for one still starting
// up, and telling it the pane's version so that a helper older than the
// installed package restarts into the new one.
#pragma once

#include <string>

#include "base/clock.h"
#include "helper/bus/distributed_notification_center.h"

namespace zephlore::pane {

// Seconds the pane waits for a helper it started to take its bus name.
inline constexpr double kHelperStartTimeoutSeconds = 5.0;

enum class HelperPresence { kListens, kNotRunning, kSilent };

class HelperContact {
 public:
  HelperContact(DistributedNotificationCenter& center, Clock& clock) : center_(center), clock_(clock) {}

  // True when a helper owns its bus name, starting one (found beside this
  // program, else on PATH) and waiting for it when none does. False with
  // *problem when there is no bus or the helper did not come up in time.
  bool ensureHelperRunning(std::string* problem);

  // Whether a helper runs and listens to the pane's notices and methods.
  // One that owns its bus name but is still starting up is waited for, up to
  // kHelperStartTimeoutSeconds; kSilent when it never answered in that time.
  HelperPresence waitUntilHelperListens();

  // Posts "com.quorvane.zephlore.version" with the pane's version when a
  // helper runs. Part of every control action.
  void postVersionIfHelperRuns();

  DistributedNotificationCenter& center() { return center_; }

 private:
  DistributedNotificationCenter& center_;
  Clock& clock_;
};

}  // namespace zephlore::pane
