// The event half of KRPathWatcher: the file event stream and what its
// callback does, the pending event ids and "lastEventID", the throttle on the
// number of live analyzers, the periodic sweeps, the progress figure, renamed
// folders and mounts. The folder list (setWatchPaths, watchedPathForPath) is
// the other half; KRPathWatcher owns one of these and links it to its list
// and to the history store through the two link structures below.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/notification_center.h"
#include "base/run_loop.h"
#include "helper/watching/path_analyzer.h"
#include "helper/watching/path_analyzers.h"
#include "platform/event_journal.h"
#include "platform/path_map.h"
#include "platform/file_event_stream.h"
#include "platform/mount_watcher.h"

namespace zephlore {

class KRHelperDefaults;

// What the events need of the history store. Each defaults to nothing.
struct KRWatcherHistoryLinks {
  std::function<void()> resolveAliases;
  std::function<std::vector<std::string>()> folders;
  std::function<std::optional<WallTime>(const std::string&)> folderSweepDate;
  std::function<int(const std::string&)> progressForFolder;
  std::function<void(int, const std::string&)> setProgressForFolder;
  std::function<void(const std::string&)> justSweptFolder;
  std::function<void(const std::string&)> mountStatusDidChangeForPath;
};

// What the events need of the folder-list half.
struct KRWatcherFolderLinks {
  std::function<std::vector<std::string>()> watchPaths;
  std::function<void(const std::vector<std::string>&)> setWatchPaths;
  std::function<std::string(const std::string&)> watchedPathForPath;
  // Set by setWatchPaths, cleared by a successful start.
  std::function<bool()> haveNewPaths;
  std::function<void()> clearHaveNewPaths;
};

class KRPathWatcherEvents : public KRPathAnalyzerDelegate {
 public:
  static constexpr double kLatency = 3.0;
  static constexpr size_t kStopAtAnalyzers = 501;
  static constexpr size_t kRestartBelowAnalyzers = 200;
  static constexpr double kSweepAge = 126000.0;      // 35 hours
  static constexpr double kSweepInterval = 61200.0;  // 17 hours
  static constexpr double kRestartAfterUnmount = 30.0;
  static constexpr size_t kMaxPathBytes = 1024;

  struct Options {
    std::string journal_path;  // the event journal's file (in the data folder)
    DirectoryWatcher::Kind backend = DirectoryWatcher::Kind::kAny;
    double latency = kLatency;
    bool watch_mounts = true;
    // The same paths' directories for the event stream (the views'); null:
    // at their own paths.
    const PathMap* map = nullptr;
    // The compressor's rewrites, not reported as changes (null: none).
    OwnRewrites* ownRewrites = nullptr;
    // Where the last processed event id is kept across runs; null: nowhere
    // (each run starts from now).
    KRHelperDefaults* settings = nullptr;
  };

  // Starts its analyses in `analyzers`, on their main loop, and hears of
  // mounts on their center. The file calls on watched paths go through `env`
  // (the helper's reaches the files beneath its views).
  KRPathWatcherEvents(Env& env, KRPathAnalyzers& analyzers, KRWatcherFolderLinks folders,
                      KRWatcherHistoryLinks history, Options options);
  Env& env() const { return env_; }
  ~KRPathWatcherEvents() override;
  KRPathWatcherEvents(const KRPathWatcherEvents&) = delete;
  KRPathWatcherEvents& operator=(const KRPathWatcherEvents&) = delete;

  void startWatchingFromEvent(uint64_t since);
  void startWatching() { startWatchingFromEvent(lastEventProcessed()); }
  void stopWatching();
  bool isWatching() const { return stream_ != nullptr; }
  void rewatch();
  void setPaused(bool paused);
  bool paused() const { return paused_; }

  // One batch of the stream, in delivery order.
  void streamCallback(const std::vector<FileEvent>& events);
  void analyzePathUnlessAnalysisStartedAfterEventId(const std::string& path, uint64_t eventID);
  void analyzePath(const std::string& path, bool recursive, uint64_t eventID = 0);
  void cancelAnalyzersForPathsInSet(const std::set<std::string>& paths);

  void finishedProcessingEvent(uint64_t eventID);
  uint64_t lastEventProcessed() const;
  uint64_t lastEventReceived() const { return last_event_received_; }
  const std::vector<uint64_t>& pendingEvents() const { return pending_events_; }

  void throttle();
  bool mustSweepFolder(const std::string& folder) const;
  void sweep();
  void updateProgressForWatchedFolder(const std::string& folder);
  static int progressForCounts(uint32_t seen, uint32_t processed);

  void watchedPathWasRenamed(const std::string& path);
  // Linux announces no unmount in advance, so the will-unmount reaction (stop
  // now, restart in 30 s) is never taken; it is kept for a source that does.
  void willUnmountNotification(const Notification& notification);
  void didMountOrUnmountNotification(const Notification& notification);
  // Whether a mount or unmount at `mountPoint` can change what the watched
  // folders hold: at, over or inside one of them, and not one of the views
  // over them (which show the same files).
  bool mountConcernsWatchedFolders(const std::string& mountPoint);

  EventJournal& journal() { return *journal_; }
  FileEventStream* stream() { return stream_.get(); }

  // KRPathAnalyzerDelegate
  void analyzerWillIgnoreRedundantEventForPath(KRPathAnalyzer*, uint64_t eventID, const std::string&) override;
  void analyzerCompressorDidProcessFile(KRPathAnalyzer*, const std::string& file) override;
  void analyzerCompressorDidFinishCompressingPath(KRPathAnalyzer* analyzer, const std::string& path,
                                                  bool recursive) override;

 private:
  std::vector<std::string> watchPaths() const;
  void restartStream();

  Env& env_;
  KRWatcherFolderLinks folders_;
  KRWatcherHistoryLinks history_;
  KRPathAnalyzers& analyzers_;
  Options options_;
  RunLoop& loop_;
  std::unique_ptr<EventJournal> journal_;
  std::unique_ptr<FileEventStream> stream_;
  std::unique_ptr<MountWatcher> mounts_;
  // Mount points of views seen in the map, kept after the view went.
  std::set<std::string> view_mount_points_;
  std::vector<uint64_t> pending_events_;
  uint64_t last_event_received_;
  bool paused_ = false;
  // Folders this run has swept at least once: the time before the run left
  // no events, so each folder is checked in full once per run.
  std::set<std::string> swept_this_run_;
  uint64_t count_observer_ = 0;
  std::vector<NotificationCenter::ObserverId> observers_;
};

}  // namespace zephlore
