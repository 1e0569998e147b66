#include "helper/watching/path_analyzers.h"

#include <algorithm>

#include "base/log.h"
#include "protocol/notification_names.h"

namespace zephlore {

KRPathAnalyzers::KRPathAnalyzers(RunLoop& mainLoop, Env& env, NotificationCenter& center, KRPathAnalyzerLinks links)
    : mainLoop_(mainLoop), env_(env), center_(center), links_(std::move(links)) {}

std::shared_ptr<KRPathAnalyzer> KRPathAnalyzers::startAnalyzerWithPath(const std::string& path, bool recursive,
                                                                       KRPathAnalyzerDelegate* delegate,
                                                                       uint64_t eventID) {
  if (path.empty()) return nullptr;
  const std::string normalized = KRPathAnalyzer::normalizePath(path);
  if (std::shared_ptr<KRPathAnalyzer> running = analyzerForPath(normalized)) {
    if (running->event_id_ == eventID) return running;  // the same event twice
    if (running->must_recheck_ && delegate) {
      delegate->analyzerWillIgnoreRedundantEventForPath(running.get(), running->event_id_for_recheck_, normalized);
    }
    running->must_recheck_ = true;
    running->recheck_recursive_ = running->recheck_recursive_ || recursive;
    running->event_id_for_recheck_ = eventID;
    return running;
  }
  if (normalized.size() > KRPathAnalyzer::kMaxPathBytes) {
    KRLog("Not analysing a path longer than %zu bytes: %s", KRPathAnalyzer::kMaxPathBytes, normalized.c_str());
    return nullptr;
  }
  std::shared_ptr<KRPathAnalyzer> analyzer(
      new KRPathAnalyzer(*this, normalized, watchedPathFor(normalized), recursive, delegate, eventID));
  std::weak_ptr<KRPathAnalyzer> weak = analyzer;
  analyzer->compressed_observer_ = center_.addObserver(
      kFileCompressedNotification, links_.compressor, [weak](const Notification& n) {
        if (auto self = weak.lock()) self->fileWasCompressed(n);
      });
  registerAnalyzer(analyzer);
  analyzer->start();
  return analyzer;
}

std::shared_ptr<KRPathAnalyzer> KRPathAnalyzers::analyzerForPath(const std::string& normalizedPath) const {
  auto it = registry_.find(normalizedPath);
  return it == registry_.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<KRPathAnalyzer>> KRPathAnalyzers::copyAnalyzersForPath(const std::string& path) const {
  const std::string normalized = KRPathAnalyzer::normalizePath(path);
  std::vector<std::shared_ptr<KRPathAnalyzer>> out;
  for (const auto& [key, analyzer] : registry_) {
    if (key == normalized || (analyzer->recursive_ && normalized.compare(0, key.size(), key) == 0)) {
      out.push_back(analyzer);
    }
  }
  return out;
}

std::vector<std::shared_ptr<KRPathAnalyzer>> KRPathAnalyzers::copyAnalyzersForWatchedPath(
    const std::string& watchedPath) const {
  std::vector<std::shared_ptr<KRPathAnalyzer>> out;
  for (const auto& [key, analyzer] : registry_) {
    if (analyzer->watched_path_ == watchedPath) out.push_back(analyzer);
  }
  return out;
}

uint64_t KRPathAnalyzers::addAnalyzersCountObserver(std::function<void()> observer) {
  const uint64_t id = nextObserver_++;
  countObservers_.emplace_back(id, std::move(observer));
  return id;
}

void KRPathAnalyzers::removeAnalyzersCountObserver(uint64_t id) {
  std::erase_if(countObservers_, [id](const auto& o) { return o.first == id; });
}

void KRPathAnalyzers::announceCountChange() {
  auto observers = countObservers_;  // an observer may start or end analyses
  for (auto& [id, fn] : observers) fn();
}

std::string KRPathAnalyzers::watchedPathFor(const std::string& path) const {
  return links_.watchedPathForPath ? links_.watchedPathForPath(path) : std::string();
}

void KRPathAnalyzers::accummulateSeenFilesCount(int32_t count, const std::string& path) {
  accummulateSeenFilesCountOfFolder(count, watchedPathFor(path));
}

void KRPathAnalyzers::accummulateSeenFilesCountOfFolder(int32_t count, const std::string& watchedFolder) {
  std::lock_guard lock(countsMutex_);
  seen_[watchedFolder] += count;
}

void KRPathAnalyzers::accummulateProcessedFilesCount(int32_t count, const std::string& path) {
  const std::string folder = watchedPathFor(path);
  std::lock_guard lock(countsMutex_);
  processed_[folder] += count;
}

uint32_t KRPathAnalyzers::seenFilesForWatchedFolder(const std::string& watchedFolder) {
  std::lock_guard lock(countsMutex_);
  auto it = seen_.find(watchedFolder);
  return it == seen_.end() ? 0 : static_cast<uint32_t>(it->second);
}

uint32_t KRPathAnalyzers::processedFilesForWatchedFolder(const std::string& watchedFolder) {
  std::lock_guard lock(countsMutex_);
  auto it = processed_.find(watchedFolder);
  return it == processed_.end() ? 0 : static_cast<uint32_t>(it->second);
}

void KRPathAnalyzers::registerAnalyzer(const std::shared_ptr<KRPathAnalyzer>& analyzer) {
  if (!registry_.emplace(analyzer->path_, analyzer).second) return;
  announceCountChange();
  if (registry_.size() == 1) center_.post(kAnalysisStartedNotification);
}

void KRPathAnalyzers::unregisterAnalyzer(const std::shared_ptr<KRPathAnalyzer>& analyzer) {
  auto it = registry_.find(analyzer->path_);
  if (it == registry_.end() || it->second != analyzer) return;
  registry_.erase(it);
  announceCountChange();
  if (registry_.empty()) {
    center_.post(kAnalysisEndedNotification);
    if (links_.closeDatabase) links_.closeDatabase();
  }
}

}  // namespace zephlore
