// Posts the control names of the pane's vocabulary: quit, keep alive, active
// status changed, check for updates now, automatic updates on / off. The
// zephlore command uses it after it has written the shared file the name is
// about; the settings store uses it for the update switch.
#pragma once

namespace zephlore {

class DistributedNotificationCenter;

class KRPreferenceCommunicator {
 public:
  explicit KRPreferenceCommunicator(DistributedNotificationCenter& center) : center_(center) {}

  // Each posts one name with no userInfo, not immediate, on `center`.
  void notifyHelperShouldKeepAlive();      // "krimbleHelperShouldKeepAlive"
  void notifyHelperShouldQuit();           // "krimbleHelperShouldQuit"
  void notifyHelperActiveStatusChanged();  // "com.quorvane.krimble.active"
  void notifyHelperShouldCheckForUpdates();  // "krimbleHelperShouldCheckForUpdates"
  void notifyAutomaticUpdatesEnabled();    // "krimbleHelperEnableUpdates"
  void notifyAutomaticUpdatesDisabled();   // "krimbleHelperDisableUpdates"

 private:
  void post(const char* name);

  DistributedNotificationCenter& center_;
};

}  // namespace zephlore
