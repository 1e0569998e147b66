// KRPathWatcher: the folders the user chose, canonicalised, and which of them
// holds a given path. The event stream over these folders builds on this
// list; the compressor asks it before it touches each queued file.
#pragma once

#include <memory>

#include "helper/watching/path_watcher_events.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/run_loop.h"

namespace zephlore {

class KRCompressor;

class KRPathWatcher {
 public:
  // Delay before queued files of folders no longer watched are dropped.
  static constexpr double kRemovalDelay = 0.1;

  // Paths are looked at through `env`; when folders are removed, their files
  // queued in `compressor` (if any) are dropped.
  KRPathWatcher(RunLoop& mainLoop, Env& env, KRCompressor* compressor = nullptr);
  ~KRPathWatcher();
  KRPathWatcher(const KRPathWatcher&) = delete;
  KRPathWatcher& operator=(const KRPathWatcher&) = delete;

  // Main thread. Canonicalises every path (realpath, else as given). A list
  // equal to the current one, in order, changes nothing; otherwise it is
  // stored, and when folders were removed the compressor drops their queued
  // files 0.1 s later. None (no list at all) differs from an empty list.
  void setWatchPaths(const std::optional<std::vector<std::string>>& paths);
  std::optional<std::vector<std::string>> watchPaths() const;
  // The list changed since the event stream last started.
  bool haveNewPaths() const;
  void setHaveNewPaths(bool value);

  // The watched folder holding `path`, or "": the path itself when it is in
  // the list, else the longest folder that is a plain string prefix of the
  // path (of its parent, for an existing non-directory). By characters, not
  // components: /a/b holds /a/bc/x too. Any thread.
  std::string watchedPathForPath(const std::string& path) const;
  bool isWatchingFolderForPath(const std::string& path) const { return !watchedPathForPath(path).empty(); }

  // The event half: the stream over these folders, its ids, sweeps and
  // throttle. Made once at start-up (main thread); until then a new list only
  // changes the list.
  KRPathWatcherEvents& startEvents(KRPathAnalyzers& analyzers, KRWatcherHistoryLinks history,
                                   KRPathWatcherEvents::Options options = {});
  KRPathWatcherEvents* events() { return events_.get(); }
  // Stops (true) or restarts the stream; the folder list stays. Main thread.
  void setPaused(bool paused);

 private:
  RunLoop& mainLoop_;
  // The compressor's and the analyzers' threads read the list.
  mutable std::mutex mutex_;
  std::optional<std::vector<std::string>> watchPaths_;
  bool haveNewPaths_ = false;
  Env& env_;
  KRCompressor* compressor_;
  std::unique_ptr<KRPathWatcherEvents> events_;
};

}  // namespace zephlore
