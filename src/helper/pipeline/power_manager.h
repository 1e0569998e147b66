// KRPowerManager: on a machine with a battery, pauses the helper when it goes
// on battery and resumes it when a charger comes back, telling the user each
// time. Polls the power supplies every 10 s on the main run loop, and acts only
// while the helper is active.
#pragma once

#include <functional>
#include <memory>

#include "base/run_loop.h"
#include "helper/notices/notice_bridge.h"
#include "platform/power_supplies.h"

namespace zephlore {

// What the power manager reads and drives in the rest of the helper. The
// status item owns pausing (its menu shows it), so the desktop layer installs
// these; with none installed nothing is paused.
struct KRPowerManagerHooks {
  std::function<bool()> helperActive;  // the "active" setting; none: active, its default
  std::function<bool()> appPaused;     // the status item shows "Paused"
  std::function<void()> pause;
  std::function<void()> resume;
};

class KRPowerManager {
 public:
  static constexpr double kPollingInterval = 10.0;

  // Tells the user through `notices`.
  KRPowerManager(std::unique_ptr<PowerSupplies> supplies, RunLoop& loop, KRGrowlBridge& notices);
  ~KRPowerManager();
  KRPowerManager(const KRPowerManager&) = delete;
  KRPowerManager& operator=(const KRPowerManager&) = delete;

  void setHooks(KRPowerManagerHooks hooks) { hooks_ = std::move(hooks); }

  // A battery of this machine is in its bay.
  bool hasBattery();
  // False only when a battery is present and no charger of any kind is online.
  bool connectedToPowerSource();

  // Main thread.
  void startMonitoringPowerSource();
  void stopMonitoringPowerSource();
  void monitorPowerSource();

 private:
  std::unique_ptr<PowerSupplies> supplies_;
  RunLoop& loop_;
  KRGrowlBridge& notices_;
  KRPowerManagerHooks hooks_;
  bool currentlyConnectedToPowerSource_ = true;  // the last state acted upon
};

}  // namespace zephlore
