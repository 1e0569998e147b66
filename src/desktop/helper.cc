#include "desktop/helper.h"

#include <algorithm>
#include <mutex>

#include "base/run_loop.h"
#include "helper/history/folder_savings.h"
#include "helper/history/history_database.h"
#include "helper/history/history_processor.h"
#include "helper/lifecycle/file_in_process_watchdog.h"
#include "helper/lifecycle/previous_run_recovery.h"
#include "helper/lifecycle/scheduler.h"
#include "helper/pipeline/compressor.h"
#include "helper/pipeline/power_manager.h"
#include "helper/pipeline/system_load_handler.h"
#include "helper/settings/defaults_controller.h"
#include "helper/watching/path_analyzer.h"
#include "helper/watching/path_watcher.h"
#include "platform/mount_watcher.h"
#include "platform/path_map.h"
#include "protocol/notification_names.h"

namespace zephlore {

Helper::Helper(Env& env, RunLoop& loop, PathMap& map, HelperObserver& observer)
    : env_(env),
      loop_(loop),
      map_(map),
      observer_(observer),
      compressor_(KRCompressor::sharedCompressor()),
      watcher_(KRPathWatcher::sharedWatcher()),
      history_(KRHistoryProcessor::sharedHistoryProcessor()),
      views_(std::make_unique<view::ViewMounter>(), loop, map) {
  history_.setWatchPathsHandler([this](const std::optional<FolderList>& folders) { applyWatchPaths(folders); });

  KRFolderViews::Hooks viewHooks;
  // Files passed over while the view was down are found again.
  viewHooks.viewRestored = [this](const std::string& folder) {
    if (KRPathWatcherEvents* events = watcher_.events()) events->analyzePath(folder, true);
  };
  viewHooks.changed = [this] { observer_.helperChanged(); };
  viewHooks.servingProcesses = [](std::vector<int> pids) {
    KRSystemLoadHandler::sharedSystemLoadHandler().setCompanionProcesses(std::move(pids));
  };
  views_.setHooks(std::move(viewHooks));

  compressor_.setFolderWatchTest([this](const std::string& path) { return watcher_.isWatchingFolderForPath(path); });
  compressor_.setSavingsRecorder(
      [this](uint64_t bytes, const std::string& path) { history_.addSavingsForPath(bytes, path); });
  // A file refused while being written is looked at again once it settled,
  // not at the next sweep.
  compressor_.setRetryHandler([](const std::string& path) { KRPathAnalyzer::startAnalyzerWithPath(path); });
  // Programs would read a file compressed while its folder's view is down
  // as empty; and a copy whose swaps no record traces must not make any.
  compressor_.setCompressionHold([this](const std::string& path) -> std::string {
    if (KRFileInProcessWatchdog::sharedWatchdog().recordHeldByAnotherCopy()) {
      return "another running helper holds the record of the file in process";
    }
    return views_.holdReason(path);
  });

  KRPowerManager::sharedPowerManager().setHooks({
      nullptr,  // the "active" setting
      [this] { return observer_.pausedByUser(); },
      [this] { observer_.pauseForPower(); },
      [this] { observer_.resumeForPower(); },
  });

  KRPathAnalyzerLinks analyzerLinks;
  analyzerLinks.watchedPathForPath = [this](const std::string& path) { return watcher_.watchedPathForPath(path); };
  analyzerLinks.addFilesToCompress = [](const std::vector<std::string>& files) {
    return static_cast<size_t>(KRCompressor::addFilesToCompress(files));
  };
  analyzerLinks.isFileInProcess = [this](const std::string& path) { return compressor_.isInProcess(path); };
  analyzerLinks.closeDatabase = [] { KRHelperUtil::closeDatabase(); };
  analyzerLinks.addAnalysisOperation = [](Operation operation) {
    KRScheduler::addAnalysisOperation(std::move(operation));
  };
  analyzerLinks.compressor = &compressor_;
  analyzerLinks.env = &env_;
  KRPathAnalyzer::setLinks(std::move(analyzerLinks));
}

Helper::~Helper() {
  for (NotificationCenter::ObserverId id : observers_) NotificationCenter::defaultCenter().removeObserver(id);
}

void Helper::recoverPreviousRun() {
  views_.refreshMap();
  checkIntegrityOfPreviousRun();
}

void Helper::start() {
  NotificationCenter& center = NotificationCenter::defaultCenter();
  // Views mounted or lost meanwhile (a view the user mounted, a view
  // unmounted) change where the stored files are reached; a watched folder's
  // view that is gone is mounted again.
  for (const char* name : {kDidMountNotification, kDidUnmountNotification}) {
    observers_.push_back(center.addObserver(name, nullptr, [this](const Notification&) { views_.mountTableChanged(); }));
  }
  // Posted on the compression thread; the figures are read on the main one.
  for (const char* name : {kFileWillCompressNotification, kFileCompressedNotification}) {
    observers_.push_back(center.addObserver(name, nullptr, [this](const Notification&) {
      loop_.post([this] { observer_.helperChanged(); });
    }));
  }
  history_.addTotalSavingsObserver([this](uint64_t) { loop_.post([this] { observer_.helperSavingsChanged(); }); });

  KRWatcherHistoryLinks links;
  links.resolveAliases = [this] { history_.resolveAliases(); };
  links.folders = [this] { return history_.folders().value_or(FolderList{}); };
  links.folderSweepDate = [this](const std::string& folder) { return history_.folderSweepDate(folder); };
  links.progressForFolder = [this](const std::string& folder) {
    return static_cast<int>(history_.progressForFolder(folder));
  };
  links.setProgressForFolder = [this](int percent, const std::string& folder) {
    history_.setProgressForFolder_main(static_cast<uint32_t>(std::max(percent, 0)), folder);
  };
  links.justSweptFolder = [this](const std::string& folder) {
    history_.justSweptFolder_main(folder);
    // The folder's savings are measured from its files, off the main
    // thread, and replace the running sum: nothing gone stays counted.
    KRScheduler::addAnalysisOperation(Operation{[this, folder] {
      if (std::optional<uint64_t> saved = measureFolderSavings(env_, folder)) history_.setSavingsForFolder(*saved, folder);
    }, {}});
  };
  links.mountStatusDidChangeForPath = [this](const std::string& path) { history_.mountStatusDidChangeForPath(path); };
  KRPathWatcherEvents::Options eventOptions;
  eventOptions.env = &env_;
  eventOptions.map = &map_;
  watcher_.startEvents(std::move(links), eventOptions);
}

void Helper::watchFolders() {
  history_.resolveAliases();
  applyWatchPaths(history_.folders());
}

void Helper::stopWatching() { watcher_.setWatchPaths(std::nullopt); }

void Helper::applyWatchPaths(const std::optional<std::vector<std::string>>& folders) {
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  views_.foldersChanged(folders, defaults.transparentView() && view::ViewMounter::fuseUsable());
  watcher_.setWatchPaths(folders);
  observer_.helperChanged();
}

void Helper::pauseWork() {
  KRPathWatcher::sharedWatcher().setPaused(true);
  KRCompressor::sharedCompressor().pauseCompression();
}

void Helper::resumeWork() {
  KRPathWatcher::sharedWatcher().setPaused(false);
  KRCompressor::sharedCompressor().resumeCompression();
}

void Helper::stopWork(const std::function<void()>& beforeWaiting) {
  watcher_.setWatchPaths(std::nullopt);
  compressor_.pauseCompression();
  std::mutex& lock = compressor_.compressorCriticalSectionLock();
  if (!lock.try_lock()) {
    if (beforeWaiting) beforeWaiting();
    lock.lock();
  }
  // Never unlocked: no swap may begin before the process ends.
}

Helper::Figures Helper::figures() {
  Figures figures;
  figures.totalSavings = history_.totalSavings();
  figures.queuedFiles = compressor_.queuedFileCount();
  figures.fileInProcess = compressor_.fileInHand();
  figures.views = views_.describe();
  return figures;
}

uint64_t Helper::totalSavings() const { return history_.totalSavings(); }

}  // namespace zephlore
