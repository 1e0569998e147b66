#include "helper/pipeline/power_manager.h"

#include <atomic>

#include "helper/notices/notice_bridge.h"

namespace zephlore {
namespace {

constexpr const char* kPollKey = "monitorPowerSource";

// Supplies of this machine: a mouse's or a headset's battery says nothing
// about how the machine itself is powered.
bool isOwnBattery(const PowerSupply& supply) {
  return supply.type == "Battery" && supply.present && !supply.device;
}

}  // namespace

KRPowerManager::KRPowerManager(std::unique_ptr<PowerSupplies> supplies, RunLoop& loop, KRGrowlBridge& notices)
    : supplies_(std::move(supplies)), loop_(loop), notices_(notices) {}

KRPowerManager::~KRPowerManager() { stopMonitoringPowerSource(); }

bool KRPowerManager::hasBattery() {
  for (const PowerSupply& supply : supplies_->list()) {
    if (isOwnBattery(supply)) return true;
  }
  return false;
}

bool KRPowerManager::connectedToPowerSource() {
  bool battery = false;
  for (const PowerSupply& supply : supplies_->list()) {
    if (isOwnBattery(supply)) battery = true;
    if (supply.type != "Battery" && supply.online && !supply.device) return true;
  }
  return !battery;
}

void KRPowerManager::startMonitoringPowerSource() {
  stopMonitoringPowerSource();
  monitorPowerSource();
}

void KRPowerManager::stopMonitoringPowerSource() { loop_.cancelPerform(this, kPollKey); }

void KRPowerManager::monitorPowerSource() {
  const bool active = !hooks_.helperActive || hooks_.helperActive();
  const bool connected = connectedToPowerSource();
  // While inactive a change is not recorded, so the first poll after
  // activation acts on it.
  if (active && connected != currentlyConnectedToPowerSource_) {
    currentlyConnectedToPowerSource_ = connected;
    const bool paused = hooks_.appPaused && hooks_.appPaused();
    if (connected) {
      // A pause the user made by hand is lifted as well.
      if (paused && hooks_.resume) {
        hooks_.resume();
        notices_.notifyResumeOnNonBatteryPowerSource();
      }
    } else if (!paused && hooks_.pause) {
      hooks_.pause();
      notices_.notifyPauseOnBattery();
    }
  }
  loop_.performAfterDelay(this, kPollKey, seconds(kPollingInterval), [this] { monitorPowerSource(); });
}

}  // namespace zephlore
