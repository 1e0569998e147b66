#include "desktop/helper.h"

#include <algorithm>
#include <mutex>

#include "base/run_loop.h"
#include "helper/history/folder_savings.h"
#include "helper/history/history_processor.h"
#include "helper/lifecycle/previous_run_recovery.h"
#include "helper/settings/defaults_controller.h"
#include "platform/mount_watcher.h"
#include "platform/path_map.h"
#include "protocol/notification_names.h"

namespace zephlore {

Helper::Helper(Env& env, Env& system, RunLoop& loop, PathMap& map, HelperObserver& observer, const std::string& dataFolder,
               Settings settings, Messaging messaging)
    : env_(env),
      loop_(loop),
      map_(map),
      observer_(observer),
      dataFolder_(dataFolder),
      settings_(settings),
      messaging_(messaging),
      record_(env, dataFolder),
      load_(std::make_unique<KernelLoadCounters>(), loop),
      power_(std::make_unique<SysfsPowerSupplies>(), loop, messaging.notices),
      exclusions_(env, dataFolder_, messaging.bus, loop),
      // Its alerts (a damaged database) reach the user as notices.
      database_(system, dataFolder, &messaging.notices),
      history_(loop, env, database_,
               {.postSavingsChanged = [this] { messaging_.bus.postNotificationName(kSavingsChangedNotification); },
                .helperActive = [this] { return settings_.user.helperActive(); },
                .savingsIncreased = [this](uint64_t increase,
                                           uint64_t total) { messaging_.notices.notifySavingsIncreasedBy(increase, total); }}),
      analyzers_(loop, env, center_),
      compressor_(loop, env, center_,
                  {.compressionQueue = &scheduler_.compressionQueue(),
                   .load = &load_,
                   .record = &record_,
                   .ownRewrites = &ownRewrites_,
                   .settings = &settings_.own}),
      watcher_(loop, env, &compressor_),
      views_(std::make_unique<view::ViewMounter>(env, view::ViewMounter::defaultCommand()), loop, map, env) {
  linkParts();
}

Helper::~Helper() {
  for (NotificationCenter::ObserverId id : observers_) center_.removeObserver(id);
  watcher_.setWatchPaths(std::nullopt);
  compressor_.pauseCompression();
  scheduler_.analysisQueue().waitUntilAllOperationsAreFinished();
  scheduler_.compressionQueue().waitUntilAllOperationsAreFinished();
}

void Helper::linkParts() {
  rules_.loadExclusionRules(env_, dataFolder_);
  history_.setWatchPathsHandler([this](const std::optional<FolderList>& folders) { applyWatchPaths(folders); });

  KRFolderViews::Hooks viewHooks;
  // Files passed over while the view was down are found again.
  viewHooks.viewRestored = [this](const std::string& folder) {
    if (KRPathWatcherEvents* events = watcher_.events()) events->analyzePath(folder, true);
  };
  viewHooks.changed = [this] { observer_.helperChanged(); };
  viewHooks.servingProcesses = [this](std::vector<int> pids) {
    load_.setCompanionProcesses(std::move(pids));
  };
  views_.setHooks(std::move(viewHooks));

  compressor_.setFolderWatchTest([this](const std::string& path) { return watcher_.isWatchingFolderForPath(path); });
  // Booked on the main loop without waiting for it: the batch goes on with
  // its next file meanwhile. The watcher names the file's folder from its
  // list, where the history would resolve every folder's alias again.
  compressor_.setSavingsRecorder([this](uint64_t bytes, const std::string& path) {
    loop_.post([this, bytes, folder = watcher_.watchedPathForPath(path)] {
      history_.addSavingsForFolder(bytes, folder);
    });
  });
  // A file refused while being written is looked at again once it settled,
  // not at the next sweep.
  compressor_.setRetryHandler([this](const std::string& path) { analyzers_.startAnalyzerWithPath(path); });
  compressor_.setLoadWaitHandler([this](bool) { loop_.post([this] { observer_.helperChanged(); }); });
  // Programs would read a file compressed while its folder's view is down
  // as empty; and a copy whose swaps no record traces must not make any.
  compressor_.setCompressionHold([this](const std::string& path) -> std::string {
    if (record_.recordHeldByAnotherCopy()) {
      return "another running helper holds the record of the file in process";
    }
    return views_.holdReason(path);
  });

  power_.setHooks({
      [this] { return settings_.user.helperActive(); },
      [this] { return observer_.pausedByUser(); },
      [this] { observer_.pauseForPower(); },
      [this] { observer_.resumeForPower(); },
  });

  KRPathAnalyzerLinks analyzerLinks;
  analyzerLinks.watchedPathForPath = [this](const std::string& path) { return watcher_.watchedPathForPath(path); };
  analyzerLinks.addFilesToCompress = [this](const std::vector<std::string>& files) {
    return static_cast<size_t>(compressor_.addFiles(files));
  };
  analyzerLinks.isFileInProcess = [this](const std::string& path) { return compressor_.isInProcess(path); };
  analyzerLinks.closeDatabase = [this] { database_.closeDatabase(loop_); };
  analyzerLinks.addAnalysisOperation = [this](Operation operation) {
    scheduler_.queueAnalysisOperation(std::move(operation));
  };
  analyzerLinks.compressor = &compressor_;
  analyzerLinks.rules = &rules_;
  analyzerLinks.userExclusions = &exclusions_;
  analyzers_.setLinks(std::move(analyzerLinks));
}

void Helper::recoverPreviousRun() {
  views_.refreshMap();
  checkIntegrityOfPreviousRun(env_, record_, dataFolder_);
}

void Helper::start() {
  NotificationCenter& center = center_;
  // Views mounted or lost meanwhile (a view the user mounted, a view
  // unmounted) change where the stored files are reached; a watched folder's
  // view that is gone is mounted again.
  for (const char* name : {kDidMountNotification, kDidUnmountNotification}) {
    observers_.push_back(center.addObserver(name, nullptr, [this](const Notification&) { views_.mountTableChanged(); }));
  }
  // Posted on the compression thread; the figures are read on the main one,
  // once for however many files went by since they were last read.
  for (const char* name : {kFileWillCompressNotification, kFileCompressedNotification}) {
    observers_.push_back(center.addObserver(name, nullptr, [this](const Notification&) {
      if (figuresChangePosted_.exchange(true)) return;
      loop_.post([this] {
        figuresChangePosted_ = false;
        observer_.helperChanged();
      });
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
    scheduler_.queueAnalysisOperation(Operation{[this, folder] {
      if (std::optional<uint64_t> saved = measureFolderSavings(env_, folder)) history_.setSavingsForFolder(*saved, folder);
    }, {}});
  };
  links.mountStatusDidChangeForPath = [this](const std::string& path) { history_.mountStatusDidChangeForPath(path); };
  KRPathWatcherEvents::Options eventOptions;
  eventOptions.map = &map_;
  eventOptions.ownRewrites = &ownRewrites_;
  eventOptions.settings = &settings_.own;
  eventOptions.journal_path = dataFolder_ + "/events.journal";
  watcher_.startEvents(analyzers_, std::move(links), eventOptions);
}

void Helper::watchFolders() {
  history_.resolveAliases();
  applyWatchPaths(history_.folders());
}

void Helper::stopWatching() { watcher_.setWatchPaths(std::nullopt); }

void Helper::applyWatchPaths(const std::optional<std::vector<std::string>>& folders) {
  views_.foldersChanged(folders, settings_.user.transparentView() && view::ViewMounter::fuseUsable());
  watcher_.setWatchPaths(folders);
  observer_.helperChanged();
}

void Helper::pauseWork() {
  watcher_.setPaused(true);
  compressor_.pauseCompression();
}

void Helper::resumeWork() {
  watcher_.setPaused(false);
  compressor_.resumeCompression();
}

void Helper::startPowerMonitoring() {
  if (power_.hasBattery()) power_.startMonitoringPowerSource();
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
  figures.waitingForLoad = compressor_.waitingForLoad();
  return figures;
}

uint64_t Helper::totalSavings() const { return history_.totalSavings(); }

}  // namespace zephlore
