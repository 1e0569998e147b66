// Helper: the helper's working parts, owned in one place. It builds the
// process-local notification center the parts post on, the scheduler, the
// crash record, the load and power gauges, the history's database and
// processor, the compressor, the path watcher and the views over the watched
// folders, hands each what it needs through its constructor, links the
// analyzers to them, and answers the desktop layer (tray, notices, status
// object), which sees it only through HelperObserver and the calls below and
// never links the parts itself. Everything here runs on the main run loop's thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/notification_center.h"
#include "desktop/folder_views.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/history/history_database.h"
#include "helper/history/history_processor.h"
#include "helper/lifecycle/file_in_process_watchdog.h"
#include "helper/lifecycle/scheduler.h"
#include "helper/notices/notice_bridge.h"
#include "helper/pipeline/compressor.h"
#include "helper/pipeline/power_manager.h"
#include "helper/pipeline/system_load_handler.h"
#include "helper/settings/defaults_controller.h"
#include "helper/settings/exclusion_rules.h"
#include "helper/settings/exclusions_processor.h"
#include "helper/settings/helper_defaults.h"
#include "helper/watching/path_analyzers.h"
#include "helper/watching/path_watcher.h"
#include "platform/own_rewrites.h"

namespace zephlore {

class Env;
class PathMap;
class RunLoop;

// What the desktop layer hears from the helper, on the main thread.
class HelperObserver {
 public:
  virtual ~HelperObserver() = default;
  // A figure the status shows (files, views, watched folders) changed.
  virtual void helperChanged() = 0;
  // The history's total savings changed.
  virtual void helperSavingsChanged() = 0;
  // The user's pause as the tray shows it: on battery the power manager
  // pauses and resumes through it, so that the tray stays true.
  virtual bool pausedByUser() = 0;
  virtual void pauseForPower() = 0;
  virtual void resumeForPower() = 0;
};

class Helper {
 public:
  // The figures the status object publishes.
  struct Figures {
    uint64_t totalSavings = 0;
    uint64_t queuedFiles = 0;
    std::string fileInProcess;
    std::vector<std::string> views;
    bool waitingForLoad = false;  // the next file waits for other programs' load to fall
  };

  // The settings files it follows: the user's ("defaults.plist", shared
  // with the command) and its own.
  struct Settings {
    KRDefaultsController& user;
    KRHelperDefaults& own;
  };

  // What the process shares with it: the session bus (the user's exclusion
  // lists are heard there, savings changes posted) and the user's notices.
  struct Messaging {
    DistributedNotificationCenter& bus;
    KRGrowlBridge& notices;
  };

  // Builds and links the parts; nothing is watched, mounted or started
  // yet. Files are reached through `env` (the helper's maps the watched
  // folders to the trees beneath their views, which `map` lists); the crash
  // record and the history database live in `dataFolder`, the database
  // reached through `system` (SQLite opens it by its path, never beneath a
  // view). Built once this copy knows it is the only one: the record's lock
  // is taken here.
  Helper(Env& env, Env& system, RunLoop& loop, PathMap& map, HelperObserver& observer, const std::string& dataFolder,
         Settings settings, Messaging messaging);
  // Stops the work and waits for the queues (tests; the helper's own lives
  // until the process ends).
  ~Helper();
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  // Before start(): finishes the file the previous run left half converted,
  // beneath the views (they hide the layout recovery must see).
  void recoverPreviousRun();
  // Starts the watcher's events and follows mounts and the compressor.
  void start();

  // Watches the history's folders (views first, then the watcher), or none.
  void watchFolders();
  void stopWatching();
  // The command's "com.quorvane.krimble.folders" notice.
  void foldersChanged(const Notification& notification) { history_.foldersChanged(notification); }
  // The watcher's and the compressor's pause.
  void pauseWork();
  void resumeWork();
  // On a machine with a battery, pauses on battery from now on.
  void startPowerMonitoring();
  // Stops the work for good: `beforeWaiting` runs when a file is being
  // swapped and the end must wait for it. The compressor's critical-section
  // lock is kept, so that no swap begins before the process ends.
  void stopWork(const std::function<void()>& beforeWaiting);

  Figures figures();
  uint64_t totalSavings() const;
  // The history's store (the quit saves what it holds).
  HistoryDatabase& historyDatabase() { return database_; }
  // Where the parts post their progress (analysis and compression started
  // and ended): the tray follows it.
  NotificationCenter& notifications() { return center_; }

 private:
  void applyWatchPaths(const std::optional<std::vector<std::string>>& folders);

  void linkParts();

  Env& env_;
  RunLoop& loop_;
  PathMap& map_;
  HelperObserver& observer_;
  const std::string dataFolder_;
  Settings settings_;
  Messaging messaging_;
  // In the order they are built: each uses only those above it.
  NotificationCenter center_;
  KRScheduler scheduler_;
  OwnRewrites ownRewrites_;
  KRFileInProcessWatchdog record_;
  KRSystemLoadHandler load_;
  KRPowerManager power_;
  KRExclusionRules rules_;
  // The user's exclusion lists are followed from the helper's start.
  KRExclusionsProcessor exclusions_;
  HistoryDatabase database_;
  KRHistoryProcessor history_;
  KRPathAnalyzers analyzers_;
  KRCompressor compressor_;
  KRPathWatcher watcher_;
  KRFolderViews views_;
  std::vector<NotificationCenter::ObserverId> observers_;
  std::atomic<bool> figuresChangePosted_{false};
};

}  // namespace zephlore
