// Where this process reaches the files of a folder that a view covers. A view
// shows a folder's compressed files at full content and hides their layout,
// so the helper's own work (events, analysis, conversions) must happen on the
// stored files beneath it, through the descriptor of the view's process. The
// rest of the helper keeps using the paths users see; the platform maps them
// at the last moment (PathMappingEnv, the directory watchers, the walker).
#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <shared_mutex>
#include <string>

namespace zephlore {

class PathMap {
 public:
  // Empty (every path maps to itself) until a view is entered.
  // Replaces every entry: shown folder -> path reaching its stored files.
  void replaceAll(std::map<std::string, std::string> entries);
  void clear() { replaceAll({}); }

  // `path` (absolute) under the innermost entry holding it, mapped; `path`
  // itself otherwise. Any thread.
  std::string toAccess(const std::string& path) const;
  // The innermost entry holding `path` (shown folder, its access path), or none.
  std::optional<std::pair<std::string, std::string>> entryFor(const std::string& path) const;

  std::map<std::string, std::string> entries() const;

 private:
  mutable std::shared_mutex mutex_;
  std::map<std::string, std::string> entries_;  // guarded by mutex_
  std::atomic<bool> empty_{true};               // the common case, without the lock
};

}  // namespace zephlore
