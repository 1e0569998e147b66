// KRPathAnalyzer: examines one path the watcher saw change, finds the files
// under it worth compressing, hands them to the compressor and follows them
// until each has been processed, telling its delegate (the watcher).
//
// Analyzers are made and kept by their registry (KRPathAnalyzers), one per
// path: an event for a path under analysis is folded into a single re-check
// after it instead of a second walk. The compressor, the watcher's folder
// lookup and the history database are reached through the registry's
// KRPathAnalyzerLinks.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/notification_center.h"
#include "base/operation_queue.h"
#include "base/run_loop.h"
#include "engine/tree_walker.h"
#include "platform/env.h"

namespace zephlore {

class KRExclusionRules;
class KRExclusionsProcessor;
class KRPathAnalyzer;
class KRPathAnalyzers;

// Every call arrives on the main thread.
class KRPathAnalyzerDelegate {
 public:
  virtual ~KRPathAnalyzerDelegate() = default;
  // A pending re-check event is replaced by a newer one and is not analysed by itself.
  virtual void analyzerWillIgnoreRedundantEventForPath(KRPathAnalyzer*, uint64_t, const std::string&) {}
  virtual void analyzerDidFinishAnalyzingPath(KRPathAnalyzer*, const std::string&, bool) {}
  // One of the analyzer's files was processed by the compressor (compressed or not).
  virtual void analyzerCompressorDidProcessFile(KRPathAnalyzer*, const std::string&) {}
  // Every file was processed; the analyzer is about to leave the registry.
  virtual void analyzerCompressorDidFinishCompressingPath(KRPathAnalyzer*, const std::string&, bool) {}
};

// What the analyzer needs of the rest of the helper. Each defaults to
// nothing, so that the class works (finding files, queueing none) until the
// helper wires the real ones.
struct KRPathAnalyzerLinks {
  // The watched folder that holds a path, "" when none (the watcher).
  std::function<std::string(const std::string&)> watchedPathForPath;
  // Queues files; the count accepted, those already held not counted.
  std::function<size_t(const std::vector<std::string>&)> addFilesToCompress;
  // Queued or being compressed.
  std::function<bool(const std::string&)> isFileInProcess;
  // Closes the history database while nothing is being analysed.
  std::function<void()> closeDatabase;
  // The analysis queue (the scheduler's by default).
  std::function<void(Operation)> addAnalysisOperation;
  // Sender of "KRFileCompressedNotification" to listen to; null: any.
  const void* compressor = nullptr;
  // The built-in exclusion rules and the user's lists; null: none.
  const KRExclusionRules* rules = nullptr;
  const KRExclusionsProcessor* userExclusions = nullptr;
};

class KRPathAnalyzer : public std::enable_shared_from_this<KRPathAnalyzer> {
 public:
  static constexpr size_t kHandOverAt = 1000;    // pending files that trigger a hand-over
  static constexpr size_t kResumeAtMost = 799;   // the walk resumes at this many
  static constexpr double kFolderSettle = 30.0;  // seconds a folder must be quiet
  static constexpr double kFileSettle = 15.0;
  static constexpr size_t kMaxPathBytes = 1024;

  // "~" expanded, "." and ".." folded, no trailing slash.
  static std::string normalizePath(const std::string& path);

  ~KRPathAnalyzer();
  KRPathAnalyzer(const KRPathAnalyzer&) = delete;
  KRPathAnalyzer& operator=(const KRPathAnalyzer&) = delete;

  void cancel();
  bool isCancelled() const { return cancelled_.load(); }

  const std::string& path() const { return path_; }
  const std::string& watchedPath() const { return watched_path_; }
  bool isRecursive() const { return recursive_; }
  KRPathAnalyzerDelegate* delegate() const { return delegate_; }
  uint64_t eventID() const { return event_id_; }
  std::optional<WallTime> analysisStartDate() const;
  bool analysisIsFinished() const { return analysis_is_finished_.load(); }
  uint64_t totalFilesToCompress() const { return total_files_to_compress_.load(); }
  size_t remainingFilesToCompress() const;
  bool mustRecheckPathAfterCompletion() const { return must_recheck_; }
  bool recheckMustBeRecursive() const { return recheck_recursive_; }
  uint64_t eventIDForRecheck() const { return event_id_for_recheck_; }

 private:
  class Walk;

  friend class KRPathAnalyzers;
  KRPathAnalyzer(KRPathAnalyzers& analyzers, std::string path, std::string watchedPath, bool recursive,
                 KRPathAnalyzerDelegate* delegate, uint64_t eventID);

  bool excludedByRules(const std::string& path) const;
  bool excludedByUser(const std::string& path) const;
  void start();
  void analyzePath();
  // Seconds since the folder (or file) last changed; -1 when it cannot be examined.
  double secondsSinceChangeOf(const std::string& path);
  // 0: not this file (a directory: descend), 1: compress it, 2: do not
  // descend into this directory.
  int checkEntry(const WalkEntry& entry);
  int checkFile(const WalkEntry& entry);
  int checkDirectory(const WalkEntry& entry);
  void waitForRoomInTheQueue();
  void collect(const std::string& path);
  void addFilesToCompress();
  void fileWasCompressed(const Notification& notification);
  void didFinishAnalyzing();
  void didFinishCompressing();
  void didFinishCompressing_main();
  void analyzeSamePathAgain(const std::shared_ptr<KRPathAnalyzer>& analyzer);
  void notifyDidFinishAnalyzing();
  void notifyDidProcessFile(const std::string& path);
  void notifyDidFinishCompressing();
  bool isHFSPlusVolume(dev_t device, const std::string& path);

  KRPathAnalyzers& analyzers_;
  Env& env_;
  const std::string path_;
  const std::string watched_path_;
  const bool recursive_;
  const uint64_t event_id_;
  KRPathAnalyzerDelegate* const delegate_;

  mutable std::mutex start_date_mutex_;
  std::optional<WallTime> analysis_start_date_;
  std::atomic<bool> analysis_is_finished_{false};
  std::atomic<bool> finished_{false};  // didFinishCompressing ran
  std::atomic<bool> cancelled_{false};
  // For the log lines that open and close a walk.
  std::atomic<bool> walked_{false};
  std::atomic<uint64_t> files_examined_{0};
  std::atomic<uint64_t> files_found_{0};
  std::atomic<bool> volume_refused_{false};  // the walked folder's volume cannot hold the form
  std::atomic<bool> root_is_real_path_{false};  // the walked root needs no resolving

  mutable std::mutex files_mutex_;
  std::vector<std::string> files_to_compress_;
  std::atomic<uint64_t> total_files_to_compress_{0};

  // Main thread only.
  bool must_recheck_ = false;
  bool recheck_recursive_ = false;
  uint64_t event_id_for_recheck_ = 0;

  std::mutex mutex_waiting_for_compression_;
  std::condition_variable cond_compressed_file_;

  NotificationCenter::ObserverId compressed_observer_ = 0;
  std::map<dev_t, bool> hfs_volumes_;  // analysis thread only
  dev_t watched_device_ = 0;
  bool watched_device_known_ = false;
};

}  // namespace zephlore
