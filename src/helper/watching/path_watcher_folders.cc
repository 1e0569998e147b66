// KRPathWatcher's folder list.
#include <sys/stat.h>

#include <algorithm>
#include <set>

#include "base/log.h"
#include "engine/path_string.h"
#include "helper/pipeline/compressor.h"
#include "helper/watching/path_watcher.h"

namespace zephlore {
namespace {

constexpr const char* kRemovalKey = "removeFilesNoLongerBeingWatched";

}  // namespace

KRPathWatcher::KRPathWatcher(RunLoop& mainLoop, Env& env, KRCompressor* compressor)
    : mainLoop_(mainLoop), env_(env), compressor_(compressor) {}

KRPathWatcher::~KRPathWatcher() { mainLoop_.cancelPerform(this, kRemovalKey); }

void KRPathWatcher::setWatchPaths(const std::optional<std::vector<std::string>>& paths) {
  std::optional<std::vector<std::string>> canonical;
  if (paths) {
    canonical.emplace();
    for (const std::string& path : *paths) canonical->push_back(QVPathString::stringByCanonicalizingPath(env_, path));
  }
  std::set<std::string> removed;
  std::vector<std::string> added;
  bool same = false;
  {
    std::lock_guard lock(mutex_);
    same = canonical == watchPaths_;
    if (!same && watchPaths_) {
      const std::set<std::string> kept = canonical ? std::set<std::string>(canonical->begin(), canonical->end())
                                                   : std::set<std::string>();
      for (const std::string& old : *watchPaths_) {
        if (kept.count(old) == 0) removed.insert(old);
      }
    }
    if (!same && canonical) {
      for (const std::string& path : *canonical) {
        if (!watchPaths_ || std::find(watchPaths_->begin(), watchPaths_->end(), path) == watchPaths_->end()) {
          added.push_back(path);
        }
      }
    }
  }
  for (const std::string& path : added) KRLog("Watching %s", path.c_str());
  for (const std::string& path : removed) KRLog("No longer watching %s", path.c_str());
  // An equal list still lets a change not yet acted upon restart the stream.
  if (same) {
    if (events_) events_->rewatch();
    return;
  }
  if (events_) events_->cancelAnalyzersForPathsInSet(removed);
  {
    std::lock_guard lock(mutex_);
    haveNewPaths_ = true;
    watchPaths_ = std::move(canonical);
  }
  if (!removed.empty() && compressor_) {
    mainLoop_.performAfterDelay(this, kRemovalKey, seconds(kRemovalDelay),
                                [this] { compressor_->removeFilesNoLongerBeingWatched(); });
  }
  if (events_) events_->rewatch();
}

KRPathWatcherEvents& KRPathWatcher::startEvents(KRPathAnalyzers& analyzers, KRWatcherHistoryLinks history,
                                                KRPathWatcherEvents::Options options) {
  if (events_) return *events_;
  KRWatcherFolderLinks folders;
  folders.watchPaths = [this] { return watchPaths().value_or(std::vector<std::string>{}); };
  folders.setWatchPaths = [this](const std::vector<std::string>& paths) { setWatchPaths(paths); };
  folders.watchedPathForPath = [this](const std::string& path) { return watchedPathForPath(path); };
  folders.haveNewPaths = [this] { return haveNewPaths(); };
  folders.clearHaveNewPaths = [this] { setHaveNewPaths(false); };
  events_ = std::make_unique<KRPathWatcherEvents>(env_, analyzers, std::move(folders), std::move(history),
                                                  std::move(options));
  return *events_;
}

void KRPathWatcher::setPaused(bool paused) {
  if (events_) events_->setPaused(paused);
}

std::optional<std::vector<std::string>> KRPathWatcher::watchPaths() const {
  std::lock_guard lock(mutex_);
  return watchPaths_;
}

bool KRPathWatcher::haveNewPaths() const {
  std::lock_guard lock(mutex_);
  return haveNewPaths_;
}

void KRPathWatcher::setHaveNewPaths(bool value) {
  std::lock_guard lock(mutex_);
  haveNewPaths_ = value;
}

std::string KRPathWatcher::watchedPathForPath(const std::string& path) const {
  std::lock_guard lock(mutex_);
  if (!watchPaths_) return "";
  if (std::find(watchPaths_->begin(), watchPaths_->end(), path) != watchPaths_->end()) return path;
  std::string probe = path;
  struct stat st;
  if (env_.stat(path, &st) == 0 && !S_ISDIR(st.st_mode)) probe = parentDirectory(path);
  std::string best;
  for (const std::string& folder : *watchPaths_) {
    if (folder.size() > best.size() && probe.compare(0, folder.size(), folder) == 0) best = folder;
  }
  return best;
}

}  // namespace zephlore
