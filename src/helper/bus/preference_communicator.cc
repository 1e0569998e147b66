#include "helper/bus/preference_communicator.h"

#include "helper/bus/distributed_notification_center.h"
#include "protocol/notification_names.h"

namespace zephlore {
namespace {

void post(const char* name) { DistributedNotificationCenter::defaultCenter().postNotificationName(name); }

}  // namespace

SharedInstance<KRPreferenceCommunicator>& KRPreferenceCommunicator::sharedInstance() {
  static SharedInstance<KRPreferenceCommunicator> instance([] { return new KRPreferenceCommunicator(); });
  return instance;
}

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
