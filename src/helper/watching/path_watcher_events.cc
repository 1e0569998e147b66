#include "helper/watching/path_watcher_events.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>

#include "base/log.h"
#include "base/util.h"
#include "helper/settings/helper_defaults.h"

namespace zephlore {
namespace {

double secondsSince1970(WallTime t) { return toSeconds(t.time_since_epoch()); }

}  // namespace

KRPathWatcherEvents::KRPathWatcherEvents(Env& env, KRPathAnalyzers& analyzers, KRWatcherFolderLinks folders,
                                         KRWatcherHistoryLinks history, Options options)
    : env_(env),
      folders_(std::move(folders)),
      history_(std::move(history)),
      analyzers_(analyzers),
      options_(std::move(options)),
      loop_(analyzers.mainLoop()) {
  journal_ = std::make_unique<EventJournal>(
      env_, options_.journal_path.empty() ? std::string("/dev/null") : options_.journal_path);
  last_event_received_ = lastEventProcessed();
  pending_events_.reserve(600);
  count_observer_ = analyzers_.addAnalyzersCountObserver([this] { throttle(); });
  if (options_.watch_mounts) mounts_ = std::make_unique<MountWatcher>(loop_, analyzers_.center());
  auto& center = analyzers_.center();
  for (const char* name : {kDidMountNotification, kDidUnmountNotification}) {
    observers_.push_back(center.addObserver(name, nullptr, [this](const Notification& n) {
      didMountOrUnmountNotification(n);
    }));
  }
}

KRPathWatcherEvents::~KRPathWatcherEvents() {
  for (auto id : observers_) analyzers_.center().removeObserver(id);
  analyzers_.removeAnalyzersCountObserver(count_observer_);
  loop_.cancelPerform(this, "sweep");
  loop_.cancelPerform(this, "startWatching");
  loop_.cancelPerform(this, "watchedPathWasRenamed");
  stopWatching();
}

std::vector<std::string> KRPathWatcherEvents::watchPaths() const {
  return folders_.watchPaths ? folders_.watchPaths() : std::vector<std::string>{};
}

// --- The stream ---

void KRPathWatcherEvents::startWatchingFromEvent(uint64_t since) {
  const std::vector<std::string> paths = watchPaths();
  if (stream_ || paths.empty()) return;
  FileEventStream::Options options;
  options.roots = paths;
  options.since = since;
  options.latency = seconds(options_.latency);
  options.backend = options_.backend;
  options.map = options_.map;
  options.ownRewrites = options_.ownRewrites;
  stream_ = std::make_unique<FileEventStream>(loop_, *journal_, options,
                                              [this](const std::vector<FileEvent>& events) { streamCallback(events); });
  if (!stream_->start()) {
    stopWatching();  // no retry until the next trigger
    return;
  }
  if (folders_.clearHaveNewPaths) folders_.clearHaveNewPaths();
  sweep();
}

void KRPathWatcherEvents::stopWatching() { stream_.reset(); }

void KRPathWatcherEvents::rewatch() {
  if (!folders_.haveNewPaths || !folders_.haveNewPaths()) return;
  restartStream();
}

void KRPathWatcherEvents::restartStream() {
  // A mount anywhere restarts the stream, and a file saved in that moment
  // would otherwise wait for the 35-hour sweep: the new stream marks the
  // folders before the old one goes, and what the old one saw (grouped, or
  // still queued in the kernel for it) is delivered. A change seen by both
  // is analysed once; a delivery may itself stop or start the new stream.
  std::unique_ptr<FileEventStream> old = std::move(stream_);
  startWatching();
  if (old) old->flush();
}

void KRPathWatcherEvents::setPaused(bool paused) {
  paused_ = paused;
  if (paused) {
    stopWatching();
  } else {
    startWatchingFromEvent(last_event_received_);
  }
}

void KRPathWatcherEvents::streamCallback(const std::vector<FileEvent>& events) {
  for (const FileEvent& event : events) {
    if (event.path.size() > kMaxPathBytes) {
      KRLog("Ignoring a change in a folder whose path is longer than %zu bytes: %s", kMaxPathBytes,
            event.path.c_str());
      continue;
    }
    if (event.flags & kFileEventRootChanged) {
      // Earlier requests stay: each one re-reads the aliases.
      loop_.performAfterDelay(this, "watchedPathWasRenamed", seconds(0.1),
                              [this, path = event.path] { watchedPathWasRenamed(path); });
    } else if (event.flags & kFileEventMustScanSubDirs) {
      analyzePath(event.path, true, event.id);
    } else if (!(event.flags &
                 (kFileEventIdsWrapped | kFileEventHistoryDone | kFileEventMount | kFileEventUnmount))) {
      analyzePathUnlessAnalysisStartedAfterEventId(event.path, event.id);
    }
  }
  if (!events.empty()) last_event_received_ = events.back().id;
}

void KRPathWatcherEvents::analyzePathUnlessAnalysisStartedAfterEventId(const std::string& path, uint64_t eventID) {
  const auto analyzers = analyzers_.copyAnalyzersForPath(path);
  if (analyzers.empty()) {
    analyzePath(path, false, eventID);
    return;
  }
  struct stat st;
  // The stored file's device beneath a view, as the journal records it.
  if (env().lstat(path, &st) != 0) return;  // gone: the running analysis sees it
  for (const auto& analyzer : analyzers) {
    uint64_t began = analyzer->eventID();
    if (began == 0) {
      const auto date = analyzer->analysisStartDate();
      began = date ? journal_->lastEventIdForDeviceBeforeTime(st.st_dev, secondsSince1970(*date)) : 0;
    }
    if (began < eventID) {
      analyzePath(path, false, eventID);
      return;
    }
  }
}

void KRPathWatcherEvents::analyzePath(const std::string& path, bool recursive, uint64_t eventID) {
  if (eventID != 0) pending_events_.push_back(eventID);
  analyzers_.startAnalyzerWithPath(path, recursive, this, eventID);
}

void KRPathWatcherEvents::cancelAnalyzersForPathsInSet(const std::set<std::string>& paths) {
  for (const std::string& folder : paths) {
    for (const auto& analyzer : analyzers_.copyAnalyzersForWatchedPath(folder)) analyzer->cancel();
  }
}

// --- Event ids ---

void KRPathWatcherEvents::finishedProcessingEvent(uint64_t eventID) {
  pending_events_.erase(std::remove(pending_events_.begin(), pending_events_.end(), eventID), pending_events_.end());
  const uint64_t keep = pending_events_.empty()
                            ? last_event_received_
                            : *std::min_element(pending_events_.begin(), pending_events_.end());
  if (options_.settings) options_.settings->setLastEventID(keep);
}

uint64_t KRPathWatcherEvents::lastEventProcessed() const {
  if (!options_.settings) return kFileEventIdSinceNow;
  const uint64_t stored = options_.settings->lastEventID();
  // Since now stays since now; otherwise the stored event is delivered again.
  return stored == kFileEventIdSinceNow ? stored : stored - 1;
}

void KRPathWatcherEvents::throttle() {
  const size_t n = analyzers_.analyzersCount();
  if (stream_ && n >= kStopAtAnalyzers) {
    stopWatching();
  } else if (!stream_ && !paused_ && n < kRestartBelowAnalyzers) {
    startWatchingFromEvent(last_event_received_);
  }
}

// --- Sweeps and progress ---

bool KRPathWatcherEvents::mustSweepFolder(const std::string& folder) const {
  const auto swept = history_.folderSweepDate ? history_.folderSweepDate(folder) : std::nullopt;
  if (!swept) return true;
  if (toSeconds(loop_.clock().wallNow() - *swept) > kSweepAge) return true;
  return !history_.progressForFolder || history_.progressForFolder(folder) != 100;
}

void KRPathWatcherEvents::sweep() {
  loop_.cancelPerform(this, "sweep");
  for (const std::string& folder : watchPaths()) {
    // Files saved while no helper ran left no event: a recent sweep of an
    // earlier run does not cover them.
    if (mustSweepFolder(folder) || swept_this_run_.count(folder) == 0) {
      swept_this_run_.insert(folder);
      analyzePath(folder, true);
    }
  }
  loop_.performAfterDelay(this, "sweep", seconds(kSweepInterval), [this] { sweep(); });
}

int KRPathWatcherEvents::progressForCounts(uint32_t seen, uint32_t processed) {
  if (seen == 0 || processed >= seen) return 100;
  const float s = static_cast<float>(seen);
  const float p = static_cast<float>(processed);
  const float progress = static_cast<float>((s - (s - p)) * 90.0 / s + 10.0);
  return static_cast<int>(std::round(progress));
}

void KRPathWatcherEvents::updateProgressForWatchedFolder(const std::string& folder) {
  const int progress = progressForCounts(analyzers_.seenFilesForWatchedFolder(folder),
                                         analyzers_.processedFilesForWatchedFolder(folder));
  if (history_.setProgressForFolder) history_.setProgressForFolder(progress, folder);
}

// --- Renames and mounts ---

void KRPathWatcherEvents::watchedPathWasRenamed(const std::string&) {
  if (history_.resolveAliases) history_.resolveAliases();
  if (folders_.setWatchPaths && history_.folders) folders_.setWatchPaths(history_.folders());
}

void KRPathWatcherEvents::willUnmountNotification(const Notification&) {
  stopWatching();
  loop_.cancelPerform(this, "startWatching");
  loop_.performAfterDelay(this, "startWatching", seconds(kRestartAfterUnmount), [this] { startWatching(); });
}

bool KRPathWatcherEvents::mountConcernsWatchedFolders(const std::string& mountPoint) {
  if (options_.map) {
    for (const auto& [shown, beneath] : options_.map->entries()) view_mount_points_.insert(shown);
  }
  if (view_mount_points_.count(mountPoint) != 0) return false;
  auto holds = [](const std::string& outer, const std::string& inner) {
    return outer == "/" || inner == outer || (inner.compare(0, outer.size(), outer) == 0 && inner[outer.size()] == '/');
  };
  for (const std::string& folder : watchPaths()) {
    if (holds(folder, mountPoint) || holds(mountPoint, folder)) return true;
  }
  return false;
}

void KRPathWatcherEvents::didMountOrUnmountNotification(const Notification& notification) {
  const std::string* device = userInfoString(notification.userInfo, kDevicePathKey);
  // A restart replays with a walk of every folder: an unrelated mount (a USB
  // stick, a view) must not cost that.
  if (!device || mountConcernsWatchedFolders(*device)) {
    loop_.cancelPerform(this, "startWatching");
    restartStream();
  }
  if (device && history_.mountStatusDidChangeForPath) history_.mountStatusDidChangeForPath(*device);
}

// --- The analyzers' reports ---

void KRPathWatcherEvents::analyzerWillIgnoreRedundantEventForPath(KRPathAnalyzer*, uint64_t eventID,
                                                                  const std::string&) {
  if (eventID != 0) finishedProcessingEvent(eventID);
}

void KRPathWatcherEvents::analyzerCompressorDidProcessFile(KRPathAnalyzer*, const std::string& file) {
  if (!folders_.watchedPathForPath) return;
  // The counts measure a sweep: a file saved after one ended (or refused in
  // it and taken later) must not turn a finished sweep back into 70 %.
  const std::string folder = folders_.watchedPathForPath(file);
  for (const auto& analyzer : analyzers_.copyAnalyzersForWatchedPath(folder)) {
    if (analyzer->isRecursive() && analyzer->path() == folder) {
      updateProgressForWatchedFolder(folder);
      return;
    }
  }
}

void KRPathWatcherEvents::analyzerCompressorDidFinishCompressingPath(KRPathAnalyzer* analyzer,
                                                                     const std::string& path, bool recursive) {
  if (analyzer->isCancelled()) return;
  if (analyzer->eventID() != 0) finishedProcessingEvent(analyzer->eventID());
  if (!recursive || !history_.folders) return;
  for (const std::string& folder : history_.folders()) {
    if (folder == path) {
      if (history_.justSweptFolder) history_.justSweptFolder(folder);
      // Every file it found was handled, compressed or refused.
      if (history_.setProgressForFolder) history_.setProgressForFolder(100, folder);
      break;
    }
  }
}

}  // namespace zephlore
