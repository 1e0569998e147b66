#include "desktop/app_delegate.h"

#include <mutex>

#include "base/log.h"
#include "base/run_loop.h"
#include "desktop/desktop_wiring.h"
#include "desktop/helper_status_service.h"
#include "desktop/libnotify_sender.h"
#include "desktop/menu_bar_controller.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/history/folder_savings.h"
#include "helper/history/history_database.h"
#include "helper/history/history_processor.h"
#include "helper/lifecycle/file_in_process_watchdog.h"
#include "helper/lifecycle/previous_run_recovery.h"
#include "helper/lifecycle/scheduler.h"
#include "helper/lifecycle/single_copy.h"
#include "helper/lifecycle/updater.h"
#include "helper/notices/notice_bridge.h"
#include "helper/pipeline/compressor.h"
#include "helper/pipeline/power_manager.h"
#include "helper/settings/defaults_controller.h"
#include "helper/settings/exclusions_processor.h"
#include "helper/settings/helper_defaults.h"
#include "helper/watching/path_analyzer.h"
#include "helper/watching/path_watcher.h"
#include "platform/mount_watcher.h"
#include "platform/path_map.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"

namespace zephlore {
namespace {

std::shared_ptr<LibnotifySender>& noticeSender() {
  static auto* sender = new std::shared_ptr<LibnotifySender>();  // never destroyed
  return *sender;
}

// Saves what the history holds in memory; a failure is only logged, as
// nothing better can be done on the way out.
void saveHistoryContext() {
  HistoryContext* context = KRHelperUtil::managedObjectContext();
  if (!context || !context->hasChanges()) return;
  Error error;
  if (!context->save(&error)) KRLog("ZephloreHelper: could not save the history: %s", error.message.c_str());
}

// After a full sweep the folder's savings are measured from its files, off
// the main thread, and replace the running sum: nothing gone stays counted.
void recordMeasuredSavings(KRHistoryProcessor& history, const std::string& folder) {
  KRScheduler::addAnalysisOperation(Operation{[&history, folder] {
    if (std::optional<uint64_t> saved = measureFolderSavings(Env::shared(), folder)) history.setSavingsForFolder(*saved, folder);
  }, {}});
}

}  // namespace

KRAppDelegate& KRAppDelegate::sharedAppDelegate() {
  static KRAppDelegate* delegate = new KRAppDelegate();  // never destroyed
  return *delegate;
}

// The update bridge exists before any notice can reach it.
KRAppDelegate::KRAppDelegate() { KRUpdater::sharedUpdater(); }

bool KRAppDelegate::awakeFromNib() {
  // 1. One copy only; a second one touches nothing.
  DistributedNotificationCenter& bus = DistributedNotificationCenter::defaultCenter();
  const SingleCopyVerdict verdict = checkSingleCopy(bus.connection(), kHelperBusName);
  if (verdict.terminate) {
    KRLog("ZephloreHelper: another copy is already running (%d in all), quitting", verdict.copies);
    return false;
  }
  // The user's exclusion lists are followed from here on.
  KRExclusionsProcessor::sharedExclusionsProcessor();

  // 2. After an update, say so once.
  KRHelperDefaults& helperDefaults = KRHelperDefaults::sharedHelperDefaults();
  if (helperDefaults.shouldRelaunchPrefs()) {
    helperDefaults.setShouldRelaunchPrefs(false);
    bus.postNotificationName(kRestartingAfterUpdateNotification, {}, true);
  }

  // 3. Before any observer and before the watcher starts.
  checkIntegrityOfPreviousRun();
  // 4.
  listenToPrefPane();
  // 5. and 6. (updateActiveStatus ends with updateVisibility).
  connectParts();
  updateActiveStatus();
  // 7.
  ownVersion_ = KRUpdater::ownVersion();
  // 8. A crash before this point is not handled.
  KRCrashController::startHandlingCrashesWithDelegate(this);
  // 9.
  KRPowerManager& power = KRPowerManager::sharedPowerManager();
  if (power.hasBattery()) power.startMonitoringPowerSource();

  KRLog("ZephloreHelper: version %s started", ownVersion_.c_str());
  publishStatus();
  return true;
}

void KRAppDelegate::checkIntegrityOfPreviousRun() {
  // A file left half converted under a view is repaired beneath it: the
  // view hides the layout that recovery must see.
  folderViews_.refreshMap();
  zephlore::checkIntegrityOfPreviousRun();
}

void KRAppDelegate::listenToPrefPane() {
  DistributedNotificationCenter& bus = DistributedNotificationCenter::defaultCenter();
  KRUpdater& updater = KRUpdater::sharedUpdater();
  bus.addObserver(kHelperShouldQuitNotification, [this](const Notification& n) { getReadyToQuit(n); });
  bus.addObserver(kShouldCheckForUpdatesNotification, [this](const Notification& n) { checkForUpdates(n); });
  bus.addObserver(kEnableUpdatesNotification, [&updater](const Notification&) { updater.enableAutomaticUpdates(); });
  bus.addObserver(kDisableUpdatesNotification,
                  [&updater](const Notification&) { updater.disableAutomaticUpdates(); });
  bus.addObserver(kVisibilityNotification, [this](const Notification&) { updateVisibility(); });
  bus.addObserver(kActiveStatusNotification, [this](const Notification&) { updateActiveStatus(); });
  bus.addObserver(kVersionNotification, [this](const Notification& n) { checkOwnVersion(n); });
  bus.addObserver(kFoldersNotification, [](const Notification& n) {
    KRHistoryProcessor::sharedHistoryProcessor().foldersChanged(n);
  });
}

void KRAppDelegate::connectParts() {
  RunLoop& loop = RunLoop::main();
  noticeSender() = std::make_shared<LibnotifySender>();
  KRGrowlBridge::sharedGrowlBridge().setSender(noticeSender());

  KRHistoryProcessor& history = KRHistoryProcessor::sharedHistoryProcessor();
  history.setWatchPathsHandler([this](const std::optional<FolderList>& folders) { applyWatchPaths(folders); });
  // Views mounted or lost meanwhile (a view the user mounted, a view
  // unmounted) change where the stored files are reached; a watched folder's
  // view that is gone is mounted again.
  for (const char* name : {kDidMountNotification, kDidUnmountNotification}) {
    NotificationCenter::defaultCenter().addObserver(name, nullptr, [this](const Notification&) {
      folderViews_.mountTableChanged();
    });
  }
  KRFolderViews::Hooks viewHooks;
  // Files passed over while the view was down are found again.
  viewHooks.viewRestored = [](const std::string& folder) {
    if (KRPathWatcherEvents* events = KRPathWatcher::sharedWatcher().events()) events->analyzePath(folder, true);
  };
  viewHooks.changed = [this] { publishStatus(); };
  folderViews_.setHooks(std::move(viewHooks));
  // Programs would read a file compressed while its folder's view is down
  // as empty; and a copy whose swaps no record traces must not make any.
  KRCompressor::sharedCompressor().setCompressionHold([this](const std::string& path) -> std::string {
    if (KRFileInProcessWatchdog::sharedWatchdog().recordHeldByAnotherCopy()) {
      return "another running helper holds the record of the file in process";
    }
    return folderViews_.holdReason(path);
  });

  KRDesktopWiring wiring;
  wiring.totalSavings = [&history] { return history.totalSavings(); };
  wiring.addSavingsForPath = [&history](uint64_t bytes, const std::string& path) {
    history.addSavingsForPath(bytes, path);
  };
  wireDesktopParts(wiring);

  KRWatcherHistoryLinks links;
  links.resolveAliases = [&history] { history.resolveAliases(); };
  links.folders = [&history] { return history.folders().value_or(FolderList{}); };
  links.folderSweepDate = [&history](const std::string& folder) { return history.folderSweepDate(folder); };
  links.progressForFolder = [&history](const std::string& folder) {
    return static_cast<int>(history.progressForFolder(folder));
  };
  links.setProgressForFolder = [&history](int percent, const std::string& folder) {
    history.setProgressForFolder_main(static_cast<uint32_t>(std::max(percent, 0)), folder);
  };
  links.justSweptFolder = [&history](const std::string& folder) {
    history.justSweptFolder_main(folder);
    recordMeasuredSavings(history, folder);
  };
  links.mountStatusDidChangeForPath = [&history](const std::string& path) { history.mountStatusDidChangeForPath(path); };
  KRPathWatcher& watcher = KRPathWatcher::sharedWatcher();
  KRPathWatcherEvents::Options eventOptions;
  // The process's Env reaches the files beneath the views (helper_main).
  eventOptions.env = &Env::shared();
  eventOptions.map = &PathMap::shared();
  watcher.startEvents(std::move(links), eventOptions);

  KRPathAnalyzerLinks analyzerLinks;
  analyzerLinks.watchedPathForPath = [&watcher](const std::string& path) { return watcher.watchedPathForPath(path); };
  analyzerLinks.addFilesToCompress = [](const std::vector<std::string>& files) {
    return static_cast<size_t>(KRCompressor::addFilesToCompress(files));
  };
  analyzerLinks.isFileInProcess = [](const std::string& path) { return KRCompressor::isFileInProcess(path); };
  analyzerLinks.closeDatabase = [] { KRHelperUtil::closeDatabase(); };
  analyzerLinks.addAnalysisOperation = [](Operation operation) {
    KRScheduler::addAnalysisOperation(std::move(operation));
  };
  analyzerLinks.compressor = &KRCompressor::sharedCompressor();
  analyzerLinks.env = eventOptions.env;
  KRPathAnalyzer::setLinks(std::move(analyzerLinks));

  // The live status for desktops without a tray and for scripts.
  statusService_ = std::make_unique<KRHelperStatusService>(DistributedNotificationCenter::defaultCenter().connection(), loop);
  statusService_->setPauseHandler([] {
    KRMenuBarController& menu = KRMenuBarController::sharedMenuBarController();
    if (!menu.paused()) {
      menu.pause();
      KRGrowlBridge::sharedGrowlBridge().notifyPause();
    }
  });
  statusService_->setResumeHandler([] {
    KRMenuBarController& menu = KRMenuBarController::sharedMenuBarController();
    if (menu.paused()) {
      menu.resume();
      KRGrowlBridge::sharedGrowlBridge().notifyResume();
    }
  });
  KRMenuBarController::sharedMenuBarController().setChangeObserver([this] { publishStatus(); });
  history.addTotalSavingsObserver([&loop](uint64_t) {
    loop.post([] {
      KRMenuBarController::sharedMenuBarController().updateSavings();
      sharedAppDelegate().publishStatus();
    });
  });
  // The session bus ends with the session. A helper left without it could no
  // longer be told anything, and as a copy still running it would make the
  // helper of the user's next session quit: it ends in order instead.
  NotificationCenter::defaultCenter().addObserver(
      kSessionBusLostNotification, &DistributedNotificationCenter::defaultCenter(), [this, &loop](const Notification&) {
        loop.post([this] {
          KRLog("ZephloreHelper: the session bus is gone, quitting");
          terminate();
        });
      });
  // Posted on the compression thread; the figures are read on the main one.
  for (const char* name : {kFileWillCompressNotification, kFileCompressedNotification}) {
    NotificationCenter::defaultCenter().addObserver(name, nullptr, [this, &loop](const Notification&) {
      loop.post([this] { publishStatus(); });
    });
  }
}

void KRAppDelegate::publishStatus() {
  if (!statusService_) return;
  const KRMenuBarController& menu = KRMenuBarController::sharedMenuBarController();
  statusService_->setStatus(menu.appStatus(), KRMenuBarController::statusText(menu.appStatus()));
  statusService_->setPaused(menu.paused());
  statusService_->setActive(KRDefaultsController::sharedDefaultsController().helperActive());
  statusService_->setTotalSavings(KRHistoryProcessor::sharedHistoryProcessor().totalSavings());
  statusService_->setQueuedFiles(KRCompressor::sharedCompressor().queuedFiles().size());
  statusService_->setFileInProcess(KRCompressor::sharedCompressor().fileInHand());
  std::string views;
  for (const std::string& line : folderViews_.describe()) views += line + "\n";
  statusService_->setViews(views);
}

void KRAppDelegate::watchPaths() {
  KRHistoryProcessor& history = KRHistoryProcessor::sharedHistoryProcessor();
  history.resolveAliases();
  applyWatchPaths(history.folders());
}

void KRAppDelegate::applyWatchPaths(const std::optional<std::vector<std::string>>& folders) {
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  folderViews_.foldersChanged(folders, defaults.transparentView() && view::ViewMounter::fuseUsable());
  KRPathWatcher::sharedWatcher().setWatchPaths(folders);
  publishStatus();
}

void KRAppDelegate::checkOwnVersion(const Notification& notification) {
  const std::string* version = userInfoString(notification.userInfo, kVersionKey);
  if (!version || *version == ownVersion_) return;
  KRLog("ZephloreHelper: version %s announced (this is %s), relaunching", version->c_str(), ownVersion_.c_str());
  if (!KRUpdater::sharedUpdater().relaunch()) return;
  // The new copy must find the name free, not queue behind this one.
  DistributedNotificationCenter& bus = DistributedNotificationCenter::defaultCenter();
  bus.releaseNames();
  bus.releaseName(kHelperBusName);
  terminate();
}

void KRAppDelegate::getReadyToQuit(const Notification&) {
  shouldQuit_ = true;
  terminate();
}

void KRAppDelegate::checkForUpdates(const Notification&) { KRUpdater::sharedUpdater().checkForUpdates(); }

void KRAppDelegate::pauseApp() {
  KRPathWatcher::sharedWatcher().setPaused(true);
  KRCompressor::sharedCompressor().pauseCompression();
}

void KRAppDelegate::resumeApp() {
  KRPathWatcher::sharedWatcher().setPaused(false);
  KRCompressor::sharedCompressor().resumeCompression();
}

void KRAppDelegate::updateActiveStatus() {
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  defaults.reload();
  if (defaults.helperActive()) {
    watchPaths();
  } else {
    KRPathWatcher::sharedWatcher().setWatchPaths(std::nullopt);
  }
  updateVisibility();
  publishStatus();
}

void KRAppDelegate::updateVisibility() {
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  defaults.reload();
  KRMenuBarController::sharedMenuBarController().setVisible(defaults.visible() && defaults.helperActive());
}

void KRAppDelegate::terminate() {
  if (terminating_) return;
  terminating_ = true;
  if (!applicationShouldTerminate()) {
    terminating_ = false;
    return;
  }
  applicationWillTerminate();
  RunLoop::main().stop();
}

bool KRAppDelegate::applicationShouldTerminate() {
  HistoryContext* context = KRHelperUtil::managedObjectContext();
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
  if (noticeSender()) noticeSender()->flush();
}

void KRAppDelegate::terminateActivity() {
  if (activityTerminated_) return;
  activityTerminated_ = true;
  KRPathWatcher::sharedWatcher().setWatchPaths(std::nullopt);
  KRCompressor& compressor = KRCompressor::sharedCompressor();
  compressor.pauseCompression();
  std::mutex& lock = compressor.compressorCriticalSectionLock();
  if (!lock.try_lock()) {
    KRGrowlBridge::sharedGrowlBridge().notifyTerminationRequested();
    KRLog("ZephloreHelper: finishing the file being compressed before quitting");
    lock.lock();
  }
  // Never unlocked: no swap may begin before the process ends.
}

void KRAppDelegate::crashControllerDidReceiveSignal(KRCrashController* controller, int32_t signal) {
  KRLog("*** ZephloreHelper received signal %d and is about to crash. Orderly saving database.", signal);
  saveHistoryContext();
  terminateActivity();
  controller->forwardToDefaultHandler();
}

}  // namespace zephlore
