// KRCompressor: the one way files reach the in-place compressor. Analyses
// hand it paths; it keeps them first in, first out, waits until 5.0 s pass
// without new work, then runs up to 50 of them as one batch on the
// compression queue (one batch at a time). Before each file it waits while the
// machine is busy, and around each file's swap it holds its critical-section
// lock and keeps the crash-recovery record, so that a kill at any moment
// leaves a file the next start can repair.
//
// The batch runs on a thread that yields to everything else: nice 10 and the
// idle I/O class, and the engine gets one worker.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/error.h"
#include "base/notification_center.h"
#include "base/operation_queue.h"
#include "base/run_loop.h"
#include "engine/hfs_compressed_file_representation.h"
#include "protocol/notification_names.h"

namespace zephlore {

class KRFileInProcessWatchdog;
class KRHelperDefaults;
class KRSystemLoadHandler;
class OwnRewrites;

inline constexpr int kFolderNotWatchedErrorCode = 8000;
inline constexpr int kFolderHeldErrorCode = 8001;  // e.g. its view is down

// What a compressor works with besides its loop and Env; each may be none.
struct KRCompressorParts {
  OperationQueue* compressionQueue = nullptr;  // none: a one-at-a-time queue of its own
  KRSystemLoadHandler* load = nullptr;         // before each file, waits while it says busy
  KRFileInProcessWatchdog* record = nullptr;   // kept around each swap
  OwnRewrites* ownRewrites = nullptr;          // told of each rewrite, for the event stream
  const KRHelperDefaults* settings = nullptr;  // "useSeamlessFileSwitch"; none: its default, on
};

class KRCompressor final : public QVHFSCompressedFileRepresentationDelegate {
 public:
  static constexpr size_t kBatchSize = 50;
  static constexpr double kTickDelay = 5.0;
  static constexpr double kLoadRetestInterval = 2.0;
  static constexpr float kMaxCPULoad = 0.7f;
  static constexpr float kMaxDiskLoad = 0.85f;
  static constexpr int kCompressionThreadNice = 10;
  // A file caught while being written is tried again once it has been left
  // alone this long (the analyzer's file settle time); each refusal in a
  // row doubles the wait, up to an hour, so a log kept open for days costs
  // a try an hour and is compressed soon after its writer lets go.
  static constexpr double kBusyRetryDelay = 15.0;
  static constexpr double kMaxBusyRetryDelay = 3600.0;
  // The wait before the try after `refusals` refusals in a row.
  static double busyRetryDelay(int refusals);

  // Whether the watcher still watches a folder holding the path.
  using FolderWatchTest = std::function<bool(const std::string& path)>;
  // Why a path must not be compressed now, "" to go ahead: a folder whose
  // view is down, where programs would read the file empty. Any thread.
  using CompressionHold = std::function<std::string(const std::string& path)>;
  // Adds saved bytes to the history of the path's folder.
  using SavingsRecorder = std::function<void(uint64_t savedBytes, const std::string& path)>;
  // Hands a file back for analysis (main thread).
  using RetryHandler = std::function<void(const std::string& path)>;
  // Told when compression starts or stops waiting for other programs' load
  // to fall (compression thread).
  using LoadWaitHandler = std::function<void(bool waiting)>;

  using Parts = KRCompressorParts;

  // Ticks on `mainLoop`; files are converted through `env`; its notices
  // (will compress, compressed, started, ended) go to `center`.
  KRCompressor(RunLoop& mainLoop, Env& env, NotificationCenter& center, Parts parts = {});
  // Stops the running batch before its next file (and waits for it when
  // the queue is the compressor's own).
  ~KRCompressor() override;
  KRCompressor(const KRCompressor&) = delete;
  KRCompressor& operator=(const KRCompressor&) = delete;

  // Wiring, before the first file is added. Without a watch test no folder is
  // watched (nothing is compressed); without a recorder savings are dropped.
  void setFolderWatchTest(FolderWatchTest test);
  void setSavingsRecorder(SavingsRecorder recorder);
  // Held files are neither queued nor compressed; whoever lifts the hold has
  // their folder analysed again.
  void setCompressionHold(CompressionHold hold);
  // Where a file refused because it was being written goes once it settled;
  // without a handler it comes back into this queue.
  void setRetryHandler(RetryHandler handler);
  void setLoadWaitHandler(LoadWaitHandler handler);

  // Queues the paths not already in process and in a watched folder; returns
  // how many. Any thread.
  uint64_t addFiles(const std::vector<std::string>& paths);
  bool isInProcess(const std::string& path);

  // Main thread.
  void removeFilesNoLongerBeingWatched();
  void scheduleTick();
  void compressionTick();
  void pauseCompression();
  void resumeCompression();
  bool compressorPaused() const { return paused_.load(); }

  // Taken (with a try) at termination so as not to quit inside a swap.
  std::mutex& compressorCriticalSectionLock() { return criticalSectionLock_; }

  // Snapshots for tests and the status item.
  std::vector<std::string> queuedFiles();
  // The status is read with every file compressed: a count, not a copy of
  // a queue that may hold a whole folder.
  size_t queuedFileCount();
  // The file being compressed now, "" between files. Any thread.
  std::string fileInHand();
  // Whether the next file waits for other programs' load to fall. Any thread.
  bool waitingForLoad() const { return waitingForLoad_.load(); }
  size_t filesBeingCompressedCount();

  // The engine's delegate: the swap of one file.
  void compressorWillEnterCriticalSectionForFile(QVHFSCompressedFileRepresentation* compressor,
                                                 const std::string& path) override;
  void compressorDidExitCriticalSectionForFile(QVHFSCompressedFileRepresentation* compressor,
                                               const std::string& path) override;

 private:
  // `reached` counts the files of the batch it is done with.
  void compressFiles(const std::vector<std::string>& batch, std::atomic<size_t>& reached);
  // One file of a batch, as the helper takes it: false with *error when it
  // was not compressed (held, no longer watched, refused by the engine).
  bool compressQueuedFile(const std::string& path, const HFSCompressionOptions& options, Error* error);
  // Signature, savings and log line of a compressed file.
  void recordCompressed(const std::string& path, uint64_t saved, uint64_t uncompressedSize);
  // The marker or the log line of a file the engine refused.
  void recordNotCompressed(const std::string& path, const Error& error);
  // Waits while the machine is busy; false when a pause came meanwhile.
  bool waitForQuietSystem();
  bool isWatched(const std::string& path);
  std::string holdReason(const std::string& path);
  static Error folderNotWatchedError(const std::string& path);
  // The engine's conversion, refused as not compressible when the compressed
  // form would take as much room as the data.
  bool compressInPlace(const std::string& path, const HFSCompressionOptions& options, Error* error, int64_t* saved,
                       int64_t* uncompressedSize);
  void postFileCompressed(const std::string& path, const Error* error);
  // Main thread: counts a refusal of a file being written and schedules its
  // retry; a success (busy false) forgets its count.
  void noteOutcome(const std::string& path, bool busy);
  void setFileInHand(const std::string& path);

  RunLoop& mainLoop_;
  Env& env_;
  NotificationCenter& center_;
  OperationQueue* compressionQueue_;
  KRSystemLoadHandler* load_;
  KRFileInProcessWatchdog* record_;
  OwnRewrites* ownRewrites_;
  const KRHelperDefaults* settings_;

  std::recursive_mutex fileQueueLock_;
  std::deque<std::string> fileQueue_;
  // The same paths, so that "already queued?" is not a walk of the queue.
  std::unordered_multiset<std::string> queuedPaths_;
  std::mutex filesBeingCompressedLock_;
  std::unordered_set<std::string> filesBeingCompressed_;
  std::atomic<bool> paused_{false};
  std::atomic<bool> waitingForLoad_{false};
  LoadWaitHandler loadWaitHandler_;
  std::mutex criticalSectionLock_;
  std::mutex fileInHandLock_;
  std::string fileInHand_;

  std::mutex hooksLock_;
  FolderWatchTest folderWatchTest_;
  SavingsRecorder savingsRecorder_;
  CompressionHold compressionHold_;
  RetryHandler retryHandler_;

  // Main thread only: refusals in a row per file, and the retries pending.
  std::unordered_map<std::string, int> busyRefusals_;
  std::unordered_set<std::string> retriesPending_;

  // Wakes a load wait early when the compressor pauses.
  std::mutex loadWaitLock_;
  std::condition_variable loadWaitCv_;

  // Last: destroyed first, so a batch still running finds the rest alive.
  std::unique_ptr<OperationQueue> ownQueue_;
};


}  // namespace zephlore
