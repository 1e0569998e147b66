#include "desktop/app_delegate.h"

#include <mutex>

#include "base/log.h"
#include "base/run_loop.h"
#include "desktop/control_surface.h"
#include "desktop/helper_status_service.h"
#include "desktop/libnotify_sender.h"
#include "desktop/menu_bar_controller.h"
#include "desktop/status_notifier_item.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/lifecycle/updater.h"
#include "helper/notices/notice_bridge.h"
#include "helper/settings/defaults_controller.h"
#include "helper/settings/helper_defaults.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"

namespace zephlore {
namespace {

// Saves what the history holds in memory; a failure is only logged, as
// nothing better can be done on the way out.
void saveHistoryContext(HistoryDatabase& database) {
  HistoryContext* context = database.managedObjectContext();
  if (!context || !context->hasChanges()) return;
  Error error;
  if (!context->save(&error)) KRLog("ZephloreHelper: could not save the history: %s", error.message.c_str());
}

}  // namespace

KRAppDelegate::KRAppDelegate(Env& env, Env& system, RunLoop& loop, PathMap& map, std::string dataFolder,
                             DistributedNotificationCenter& bus)
    : env_(env),
      loop_(loop),
      map_(map),
      dataFolder_(std::move(dataFolder)),
      bus_(bus),
      communicator_(bus),
      defaults_(system, dataFolder_, &communicator_),
      helperDefaults_(system),
      helper_(std::make_unique<Helper>(env_, system, loop_, map_, *this, dataFolder_,
                                       Helper::Settings{defaults_, helperDefaults_},
                                       Helper::Messaging{bus_, notices_})),
      menu_(loop, helper_->notifications(), notices_) {}

KRAppDelegate::~KRAppDelegate() = default;

void KRAppDelegate::awakeFromNib() {
  // 1. (The one-copy check ran in main, before this object and its Helper
  // were made.)

  // 2. After an update, say so once.
  if (helperDefaults_.shouldRelaunchPrefs()) {
    helperDefaults_.setShouldRelaunchPrefs(false, loop_);
    bus_.postNotificationName(kRestartingAfterUpdateNotification, {}, true);
  }

  // 3. Before any observer and before the watcher starts.
  checkIntegrityOfPreviousRun();
  // 4.
  listenToPrefPane();
  // 5. and 6. (updateActiveStatus ends with updateVisibility).
  connectDesktop();
  helper_->start();
  updateActiveStatus();
  // 7.
  ownVersion_ = KRUpdater::ownVersion();
  // 8. A crash before this point is not handled.
  KRCrashController::startHandlingCrashesWithDelegate(this, loop_);
  // 9.
  helper_->startPowerMonitoring();

  KRLog("ZephloreHelper: version %s started", ownVersion_.c_str());
  publishStatus();
}

void KRAppDelegate::checkIntegrityOfPreviousRun() { helper_->recoverPreviousRun(); }

void KRAppDelegate::listenToPrefPane() {
  DistributedNotificationCenter& bus = bus_;
  KRUpdater& updater = updater_;
  bus.addObserver(kHelperShouldQuitNotification, [this](const Notification& n) { getReadyToQuit(n); }, loop_);
  bus.addObserver(kShouldCheckForUpdatesNotification, [this](const Notification& n) { checkForUpdates(n); },
                  loop_);
  bus.addObserver(kEnableUpdatesNotification,
                  [&updater](const Notification&) { updater.enableAutomaticUpdates(); }, loop_);
  bus.addObserver(kDisableUpdatesNotification,
                  [&updater](const Notification&) { updater.disableAutomaticUpdates(); }, loop_);
  bus.addObserver(kVisibilityNotification, [this](const Notification&) { updateVisibility(); }, loop_);
  bus.addObserver(kActiveStatusNotification, [this](const Notification&) { updateActiveStatus(); }, loop_);
  bus.addObserver(kVersionNotification, [this](const Notification& n) { checkOwnVersion(n); }, loop_);
  bus.addObserver(kFoldersNotification, [this](const Notification& n) { helper_->foldersChanged(n); }, loop_);
}

void KRAppDelegate::connectDesktop() {
  RunLoop& loop = loop_;
  noticeSender_ = std::make_shared<LibnotifySender>();
  notices_.setSender(noticeSender_);

  menu_.setShowHistoryAction([this, &loop] { KRControlSurface::showHistory(loop, bus_); });
  menu_.setTotalSavingsSource([this] { return helper_->totalSavings(); });
  menu_.setWorkPauser([this](bool paused) { paused ? pauseApp() : resumeApp(); });
  trayItem_ = std::make_unique<KRStatusNotifierItem>(
      loop, [this] { menu_.togglePause(); }, [this] { menu_.showHistory(); });
  menu_.setView(trayItem_.get());

  // The live status for desktops without a tray and for scripts.
  statusService_ = std::make_unique<KRHelperStatusService>(bus_.connection(), loop);
  statusService_->setPauseHandler([this] {
    if (!menu_.paused()) {
      menu_.pause();
      notices_.notifyPause();
    }
  });
  statusService_->setResumeHandler([this] {
    if (menu_.paused()) {
      menu_.resume();
      notices_.notifyResume();
    }
  });
  menu_.setChangeObserver([this] { publishStatus(); });
  // The session bus ends with the session. A helper left without it could no
  // longer be told anything, and as a copy still running it would make the
  // helper of the user's next session quit: it ends in order instead.
  bus_.setConnectionLostHandler([this, &loop] {
    loop.post([this] {
      KRLog("ZephloreHelper: the session bus is gone, quitting");
      terminate();
    });
  });
}

void KRAppDelegate::publishStatus() {
  if (!statusService_) return;
  statusService_->setStatus(menu_.appStatus(), KRMenuBarController::statusText(menu_.appStatus()));
  statusService_->setPaused(menu_.paused());
  statusService_->setActive(defaults_.helperActive());
  const Helper::Figures figures = helper_->figures();
  statusService_->setTotalSavings(figures.totalSavings);
  statusService_->setQueuedFiles(figures.queuedFiles);
  statusService_->setFileInProcess(figures.fileInProcess);
  std::string views;
  for (const std::string& line : figures.views) views += line + "\n";
  statusService_->setViews(views);
  const bool onBattery = pausedForPower_ && menu_.paused();
  statusService_->setWaiting(onBattery                  ? status_names::kWaitingOnBattery
                             : figures.waitingForLoad ? status_names::kWaitingForLoad
                                                      : "");
}

void KRAppDelegate::watchPaths() { helper_->watchFolders(); }

void KRAppDelegate::helperSavingsChanged() {
  menu_.updateSavings();
  publishStatus();
}

bool KRAppDelegate::pausedByUser() {
  return menu_.appStatus() == kStatusPaused;
}

void KRAppDelegate::pauseForPower() {
  pausedForPower_ = true;
  menu_.pause();
  publishStatus();
}

void KRAppDelegate::resumeForPower() {
  pausedForPower_ = false;
  menu_.resume();
  publishStatus();
}

void KRAppDelegate::checkOwnVersion(const Notification& notification) {
  const std::string* version = userInfoString(notification.userInfo, kVersionKey);
  if (!version || *version == ownVersion_) return;
  KRLog("ZephloreHelper: version %s announced (this is %s), relaunching", version->c_str(), ownVersion_.c_str());
  if (!updater_.relaunch()) return;
  // The new copy must find the name free, not queue behind this one.
  bus_.releaseNames();
  bus_.releaseName(kHelperBusName);
  terminate();
}

void KRAppDelegate::getReadyToQuit(const Notification&) {
  shouldQuit_ = true;
  terminate();
}

void KRAppDelegate::checkForUpdates(const Notification&) { updater_.checkForUpdates(); }

void KRAppDelegate::pauseApp() {
  if (helper_) helper_->pauseWork();
}

void KRAppDelegate::resumeApp() {
  if (helper_) helper_->resumeWork();
}

void KRAppDelegate::updateActiveStatus() {
  KRDefaultsController& defaults = defaults_;
  defaults.reload();
  if (defaults.helperActive()) {
    watchPaths();
  } else {
    helper_->stopWatching();
  }
  updateVisibility();
  publishStatus();
}

void KRAppDelegate::updateVisibility() {
  KRDefaultsController& defaults = defaults_;
  defaults.reload();
  menu_.setVisible(defaults.visible() && defaults.helperActive());
}

void KRAppDelegate::terminate() {
  if (terminating_) return;
  terminating_ = true;
  if (!applicationShouldTerminate()) {
    terminating_ = false;
    return;
  }
  applicationWillTerminate();
  loop_.stop();
}

bool KRAppDelegate::applicationShouldTerminate() {
  HistoryContext* context = helper_ ? helper_->historyDatabase().managedObjectContext() : nullptr;
  if (!context) return true;
  if (!context->commitEditing()) {
    KRLog("%s:%s unable to commit editing to terminate", "KRAppDelegate", "applicationShouldTerminate:");
    return false;
  }
  if (!context->hasChanges()) return true;
  Error ignored;
  context->save(&ignored);
  return true;
}

void KRAppDelegate::applicationWillTerminate() {
  terminateActivity();
  // The last notices (the termination one above all) leave before the exit.
  if (noticeSender_) noticeSender_->flush();
}

void KRAppDelegate::terminateActivity() {
  if (activityTerminated_) return;
  activityTerminated_ = true;
  if (!helper_) return;
  helper_->stopWork([this] {
    notices_.notifyTerminationRequested();
    KRLog("ZephloreHelper: finishing the file being compressed before quitting");
  });
}

void KRAppDelegate::crashControllerDidReceiveSignal(KRCrashController* controller, int32_t signal) {
  KRLog("*** ZephloreHelper received signal %d and is about to crash. Orderly saving database.", signal);
  if (helper_) saveHistoryContext(helper_->historyDatabase());
  terminateActivity();
  controller->forwardToDefaultHandler();
}

}  // namespace zephlore
