// Helper: the helper's working parts put together in one place. It hands
// the compressor, the path watcher, the analyzers and the history the links
// between them, owns the views over the watched folders, and answers the
// desktop layer (tray, notices, status object), which sees it only through
// HelperObserver and the calls below and never links the parts itself.
// Everything here runs on the main run loop's thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/notification_center.h"
#include "desktop/folder_views.h"

namespace zephlore {

class Env;
class PathMap;
class RunLoop;
class KRCompressor;
class KRHistoryProcessor;
class KRPathWatcher;

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
  };

  // Links the parts; nothing is watched, mounted or started yet. Built
  // once: the parts it links are still process-wide and keep its links, so
  // it lives until the process ends.
  Helper(Env& env, RunLoop& loop, PathMap& map, HelperObserver& observer);
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
  // The watcher's and the compressor's pause (they are process-wide yet).
  static void pauseWork();
  static void resumeWork();
  // Stops the work for good: `beforeWaiting` runs when a file is being
  // swapped and the end must wait for it. The compressor's critical-section
  // lock is kept, so that no swap begins before the process ends.
  void stopWork(const std::function<void()>& beforeWaiting);

  Figures figures();
  uint64_t totalSavings() const;

 private:
  void applyWatchPaths(const std::optional<std::vector<std::string>>& folders);

  Env& env_;
  RunLoop& loop_;
  PathMap& map_;
  HelperObserver& observer_;
  KRCompressor& compressor_;
  KRPathWatcher& watcher_;
  KRHistoryProcessor& history_;
  KRFolderViews views_;
  std::vector<NotificationCenter::ObserverId> observers_;
};

}  // namespace zephlore
