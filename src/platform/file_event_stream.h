// Per-directory change events with ids that only rise and survive restarts:
// the stream the path watcher reads.
//
// Changes are grouped per directory over `latency` (on the run loop's clock),
// given ids and written to the journal, and then delivered in one batch. A
// stream started from an id first replays the journal after it, then
// delivers one MustScanSubDirs|HistoryDone per root, since what happened while
// nobody listened cannot be replayed. The process's own changes are not
// reported. Lost events (a queue overflow) become MustScanSubDirs|
// KernelDropped per root; a root past the mark limit is re-checked in full
// every 30 minutes; a root moved or deleted gives RootChanged.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/run_loop.h"
#include "platform/directory_watcher.h"
#include "platform/event_journal.h"
#include "platform/file_event.h"

namespace zephlore {

class FileEventStream : private DirectoryWatcher::Delegate {
 public:
  using Callback = std::function<void(const std::vector<FileEvent>&)>;

  struct Options {
    std::vector<std::string> roots;
    uint64_t since = kFileEventIdSinceNow;
    Duration latency = seconds(3.0);
    DirectoryWatcher::Kind backend = DirectoryWatcher::Kind::kAny;
    // Where the roots' directories are reached (beneath the views); null:
    // at their own paths. Must outlive the stream.
    const PathMap* map = nullptr;
    // The files this process is rewriting, whose events are not reported
    // where the kernel does not name their process; null: none.
    OwnRewrites* ownRewrites = nullptr;
  };

  static constexpr Duration kLimitedRootRecheck = std::chrono::minutes(30);

  FileEventStream(RunLoop& loop, EventJournal& journal, Options options, Callback callback);
  ~FileEventStream() override;
  FileEventStream(const FileEventStream&) = delete;
  FileEventStream& operator=(const FileEventStream&) = delete;

  // Marks the roots and begins delivering; false when no kernel source can be
  // had. The replay is delivered from the run loop, not from here.
  bool start();
  void stop();
  const char* backendName() const { return watcher_ ? watcher_->backendName() : "none"; }
  size_t markedDirectories() const { return watcher_ ? watcher_->markedDirectories() : 0; }

  // Delivers what is grouped now, without waiting for the latency (tests,
  // shutdown).
  void flush();

 private:
  void directoryChanged(const std::string& directory, uint64_t device) override;
  void rootChanged(const std::string& root) override;
  void eventsDropped() override;
  void markLimitReached(const std::string& root) override;

  void add(const std::string& path, uint32_t flags, uint64_t device);
  void deliverReplay();

  RunLoop& loop_;
  EventJournal& journal_;
  Options options_;
  Callback callback_;
  std::unique_ptr<DirectoryWatcher> watcher_;
  RunLoop::WatchId watch_ = 0;
  RunLoop::TimerId flush_timer_ = 0;
  RunLoop::TimerId replay_timer_ = 0;
  std::vector<RunLoop::TimerId> recheck_timers_;
  std::map<std::string, std::pair<uint32_t, uint64_t>> pending_;  // directory -> flags, device
  std::vector<std::string> pending_order_;
  std::map<std::string, uint64_t> root_devices_;
  bool running_ = false;
};

}  // namespace zephlore
