#include "view/kept_pages.h"

#include <vector>

namespace zephlore::view {
namespace {

// Paths remembered before the ones no file holds open are forgotten (which
// only costs a read the kernel could have spared).
constexpr size_t kMostPaths = 1 << 16;

}  // namespace

struct KeptPages::Shown {
  std::string path;
  bool gone = false;  // its name was removed or taken through the view
  FileVersion version;
  bool fixed = false;
  // The kernel's pages are known to be of `version` alone: false while a
  // file of another version may have been read there since it last dropped
  // them.
  bool clean = false;
  int opens = 0;
  int writers = 0;  // of the opens, those that may write
};

KeptPages::Ticket KeptPages::opened(const std::string& path, const FileVersion& version, bool fixed, bool writing,
                                    bool* keep) {
  std::lock_guard lock(mutex_);
  auto found = shown_.find(path);
  if (found == shown_.end()) {
    if (shown_.size() >= kMostPaths) {
      for (auto it = shown_.begin(); it != shown_.end();) {
        it = it->second->opens == 0 ? shown_.erase(it) : std::next(it);
      }
    }
    found = shown_.emplace(path, std::make_shared<Shown>()).first;
    found->second->path = path;
  }
  Shown& shown = *found->second;
  *keep = (fixed && shown.fixed && shown.clean && shown.version == version) || (!fixed && shown.writers > 0);
  // Without keep the kernel drops its pages now; files still open there
  // may read pages of another version back in.
  if (!*keep) shown.clean = shown.opens == 0;
  shown.version = version;
  shown.fixed = fixed;
  ++shown.opens;
  if (writing) ++shown.writers;
  return found->second;
}

void KeptPages::closed(const Ticket& ticket, bool writing) {
  std::lock_guard lock(mutex_);
  --ticket->opens;
  if (writing) --ticket->writers;
}

std::optional<std::string> KeptPages::pathOf(const Ticket& ticket) {
  std::lock_guard lock(mutex_);
  if (ticket->gone) return std::nullopt;
  return ticket->path;
}

void KeptPages::dropUnder(const std::string& path) {
  if (auto it = shown_.find(path); it != shown_.end()) {
    it->second->gone = true;
    shown_.erase(it);
  }
  const std::string folder = path + "/";
  for (auto it = shown_.lower_bound(folder); it != shown_.end() && it->first.starts_with(folder);) {
    it->second->gone = true;
    it = shown_.erase(it);
  }
}

void KeptPages::removed(const std::string& path) {
  std::lock_guard lock(mutex_);
  dropUnder(path);
}

void KeptPages::renamed(const std::string& from, const std::string& to) {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, Ticket>> moved;
  if (auto it = shown_.find(from); it != shown_.end()) {
    moved.emplace_back(to, std::move(it->second));
    shown_.erase(it);
  }
  const std::string folder = from + "/";
  for (auto it = shown_.lower_bound(folder); it != shown_.end() && it->first.starts_with(folder);) {
    moved.emplace_back(to + it->first.substr(from.size()), std::move(it->second));
    it = shown_.erase(it);
  }
  dropUnder(to);
  for (auto& [path, ticket] : moved) {
    ticket->path = path;
    shown_[path] = std::move(ticket);
  }
}

}  // namespace zephlore::view
