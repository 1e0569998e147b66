#include "helper/bus/preference_communicator.h"

#include "helper/bus/distributed_notification_center.h"
#include "protocol/notification_names.h"

namespace zephlore {

void KRPreferenceCommunicator::post(const char* name) { center_.postNotificationName(name); }

void KRPreferenceCommunicator::notifyHelperShouldKeepAlive() {
  post(kHelperShouldKeepAliveNotification);
}

void KRPreferenceCommunicator::notifyHelperShouldQuit() { post(kHelperShouldQuitNotification); }

void KRPreferenceCommunicator::notifyHelperActiveStatusChanged() {
  post(kActiveStatusNotification);
}

void KRPreferenceCommunicator::notifyHelperShouldCheckForUpdates() {
  post(kShouldCheckForUpdatesNotification);
}

void KRPreferenceCommunicator::notifyAutomaticUpdatesEnabled() { post(kEnableUpdatesNotification); }

void KRPreferenceCommunicator::notifyAutomaticUpdatesDisabled() {
  post(kDisableUpdatesNotification);
}

}  // namespace zephlore
