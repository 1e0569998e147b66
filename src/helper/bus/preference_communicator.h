// Posts the control names of the pane's vocabulary: quit, keep alive, active
// status changed, check for updates now, automatic updates on / off. The
// zephlore command uses it after it has written the shared file the name is
// about; the settings store uses it for the update switch.
#pragma once

#include "base/shared_instance.h"

namespace zephlore {

class KRPreferenceCommunicator {
 public:
  static KRPreferenceCommunicator& sharedCommunicatorController() { return sharedInstance().get(); }
  // Where tests install their own (ScopedShared<KRPreferenceCommunicator>).
  static SharedInstance<KRPreferenceCommunicator>& sharedInstance();

  // Each posts one name with no userInfo, not immediate, on the default
  // distributed notification center.
  void notifyHelperShouldKeepAlive();      // "krimbleHelperShouldKeepAlive"
  void notifyHelperShouldQuit();           // "krimbleHelperShouldQuit"
  void notifyHelperActiveStatusChanged();  // "com.quorvane.krimble.active"
  void notifyHelperShouldCheckForUpdates();  // "krimbleHelperShouldCheckForUpdates"
  void notifyAutomaticUpdatesEnabled();    // "krimbleHelperEnableUpdates"
  void notifyAutomaticUpdatesDisabled();   // "krimbleHelperDisableUpdates"

 private:
  friend class ScopedShared<KRPreferenceCommunicator>;
  KRPreferenceCommunicator() = default;
};

}  // namespace zephlore
