// KRPathAnalyzers: the registry of the analyses running in one helper, one
// per path, and the counts of files they found and saw processed per
// watched folder (a sweep's progress). It makes every analyzer, hands it the
// links to the rest of the helper, and lets it go when its files are done.
// The registry and its observers live on the main thread; the counts are
// also added to from analysis threads.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/notification_center.h"
#include "base/run_loop.h"
#include "helper/watching/path_analyzer.h"
#include "platform/env.h"

namespace zephlore {

class KRPathAnalyzers {
 public:
  // Analyses walk through `env` and hop to `mainLoop`; they follow the
  // compressor's notices and post their own on `center`.
  KRPathAnalyzers(RunLoop& mainLoop, Env& env, NotificationCenter& center, KRPathAnalyzerLinks links = {});
  KRPathAnalyzers(const KRPathAnalyzers&) = delete;
  KRPathAnalyzers& operator=(const KRPathAnalyzers&) = delete;

  RunLoop& mainLoop() { return mainLoop_; }
  NotificationCenter& center() { return center_; }
  // Main thread, before the first analysis.
  void setLinks(KRPathAnalyzerLinks links) { links_ = std::move(links); }

  // --- Main thread ---
  // Starts an analysis of `path`, or folds the event into the running one
  // (a re-check after it); none for an empty or too long path.
  std::shared_ptr<KRPathAnalyzer> startAnalyzerWithPath(const std::string& path, bool recursive = false,
                                                        KRPathAnalyzerDelegate* delegate = nullptr,
                                                        uint64_t eventID = 0);
  std::shared_ptr<KRPathAnalyzer> analyzerForPath(const std::string& normalizedPath) const;
  size_t analyzersCount() const { return registry_.size(); }
  // Those analysing `path` itself or, recursively, a folder holding it.
  std::vector<std::shared_ptr<KRPathAnalyzer>> copyAnalyzersForPath(const std::string& path) const;
  std::vector<std::shared_ptr<KRPathAnalyzer>> copyAnalyzersForWatchedPath(const std::string& watchedPath) const;
  // Called after each change of analyzersCount(); returns an id for removal.
  uint64_t addAnalyzersCountObserver(std::function<void()> observer);
  void removeAnalyzersCountObserver(uint64_t id);

  // --- Any thread ---
  void accummulateSeenFilesCount(int32_t count, const std::string& path);
  void accummulateProcessedFilesCount(int32_t count, const std::string& path);
  uint32_t seenFilesForWatchedFolder(const std::string& watchedFolder);
  uint32_t processedFilesForWatchedFolder(const std::string& watchedFolder);

 private:
  friend class KRPathAnalyzer;

  std::string watchedPathFor(const std::string& path) const;
  void accummulateSeenFilesCountOfFolder(int32_t count, const std::string& watchedFolder);
  void registerAnalyzer(const std::shared_ptr<KRPathAnalyzer>& analyzer);
  void unregisterAnalyzer(const std::shared_ptr<KRPathAnalyzer>& analyzer);
  void announceCountChange();

  RunLoop& mainLoop_;
  Env& env_;
  NotificationCenter& center_;
  KRPathAnalyzerLinks links_;
  std::map<std::string, std::shared_ptr<KRPathAnalyzer>> registry_;
  std::vector<std::pair<uint64_t, std::function<void()>>> countObservers_;
  uint64_t nextObserver_ = 1;
  std::mutex countsMutex_;
  std::map<std::string, int32_t> seen_;
  std::map<std::string, int32_t> processed_;
};

}  // namespace zephlore
