#include "platform/path_map.h"

#include <mutex>

namespace zephlore {

void PathMap::replaceAll(std::map<std::string, std::string> entries) {
  std::unique_lock lock(mutex_);
  entries_ = std::move(entries);
  empty_.store(entries_.empty(), std::memory_order_release);
}

std::optional<std::pair<std::string, std::string>> PathMap::entryFor(const std::string& path) const {
  if (empty_.load(std::memory_order_acquire) || path.empty() || path[0] != '/') return std::nullopt;
  std::shared_lock lock(mutex_);
  // Walk up the path's own prefixes, innermost first: a folder's entry
  // applies to the folder and everything under it, never to a sibling that
  // merely starts with the same letters.
  for (size_t end = path.size();;) {
    const auto found = entries_.find(path.substr(0, end));
    if (found != entries_.end()) return *found;
    if (end <= 1) break;
    end = path.rfind('/', end - 1);
    if (end == 0) end = 1;  // the root itself
    if (end == std::string::npos) break;
  }
  return std::nullopt;
}

std::string PathMap::toAccess(const std::string& path) const {
  const std::optional<std::pair<std::string, std::string>> entry = entryFor(path);
  if (!entry) return path;
  const std::string rest = entry->first == "/" ? path : path.substr(entry->first.size());
  // "/." steps through a descriptor's link even for calls that never follow
  // a final symbolic link (lstat, O_NOFOLLOW).
  return entry->second + (rest.empty() || rest == "/" ? "/." : rest);
}

std::map<std::string, std::string> PathMap::entries() const {
  std::shared_lock lock(mutex_);
  return entries_;
}

}  // namespace zephlore
