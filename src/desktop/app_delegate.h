// KRAppDelegate: the helper's application object, built by its main once
// this copy knows it is the only one. It runs the process from start to
// exit: owns the process's one settings controllers, update bridge and
// notice bridge (over the session bus `main` connected), builds the
// Helper, finishes the file the previous run left half
// converted, connects the command's notices to the helper, the update bridge
// and the history, applies "active" and "visible", owns the tray's
// controller, installs the crash handling and the power monitoring, and at
// the end stops the work in order, so that no file is left half written.
// Everything here runs on the main thread.
#pragma once

#include <memory>
#include <string>

#include "base/notification_center.h"
#include "desktop/helper.h"
#include "desktop/menu_bar_controller.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/bus/preference_communicator.h"
#include "helper/lifecycle/crash_controller.h"
#include "helper/lifecycle/updater.h"
#include "helper/notices/notice_bridge.h"
#include "helper/settings/defaults_controller.h"
#include "helper/settings/helper_defaults.h"

namespace zephlore {

class KRHelperStatusService;
class KRStatusNotifierItem;
class LibnotifySender;

class KRAppDelegate : public KRCrashControllerDelegate, public HelperObserver {
 public:
  // What the helper works through (`env`, beneath the views; see Helper),
  // the system itself for the settings files (the user's own, read where
  // the user sees them, never beneath a view), and the session bus of the
  // process; the Helper is built, nothing starts yet.
  KRAppDelegate(Env& env, Env& system, RunLoop& loop, PathMap& map, std::string dataFolder,
                DistributedNotificationCenter& bus);
  ~KRAppDelegate() override;

  // The start-up steps in their order.
  void awakeFromNib();

  void listenToPrefPane();
  void watchPaths();
  void checkIntegrityOfPreviousRun();

  // The command's notices.
  void checkOwnVersion(const Notification& notification);
  void getReadyToQuit(const Notification& notification);
  void checkForUpdates(const Notification& notification);

  // The status item's Pause and Resume (and the bus object's methods).
  void pauseApp();
  void resumeApp();

  void updateActiveStatus();
  void updateVisibility();

  // Asks the application to end: should-terminate, will-terminate, then the
  // main run loop stops. Quit signals and "krimbleHelperShouldQuit" come here.
  void terminate();
  // False: the history could not commit; the helper keeps running.
  bool applicationShouldTerminate();
  void applicationWillTerminate();
  // Stops the work and keeps the compressor's critical-section lock for good.
  void terminateActivity();

  // KRCrashControllerDelegate
  void crashControllerDidReceiveSignal(KRCrashController* controller, int32_t signal) override;

  // HelperObserver
  void helperChanged() override { publishStatus(); }
  void helperSavingsChanged() override;
  bool pausedByUser() override;
  void pauseForPower() override;
  void resumeForPower() override;

  bool shouldQuit() const { return shouldQuit_; }
  const std::string& ownVersion() const { return ownVersion_; }

  KRAppDelegate(const KRAppDelegate&) = delete;
  KRAppDelegate& operator=(const KRAppDelegate&) = delete;

 private:
  // What Linux adds around the steps: desktop notices, the tray item, the
  // live status on the bus.
  void connectDesktop();
  void publishStatus();

  Env& env_;
  RunLoop& loop_;
  PathMap& map_;
  const std::string dataFolder_;
  DistributedNotificationCenter& bus_;
  // The update bridge exists before any notice can reach it.
  KRUpdater updater_;
  KRGrowlBridge notices_;
  KRPreferenceCommunicator communicator_;
  KRDefaultsController defaults_;
  KRHelperDefaults helperDefaults_;
  // Built once this copy knows it is the only one.
  std::unique_ptr<Helper> helper_;
  KRMenuBarController menu_;
  std::unique_ptr<KRStatusNotifierItem> trayItem_;
  std::shared_ptr<LibnotifySender> noticeSender_;
  bool shouldQuit_ = false;
  bool terminating_ = false;
  bool activityTerminated_ = false;
  std::string ownVersion_;
  bool pausedForPower_ = false;
  std::unique_ptr<KRHelperStatusService> statusService_;
};

}  // namespace zephlore
