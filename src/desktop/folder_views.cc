#include "desktop/folder_views.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/error.h"
#include "base/log.h"
#include "platform/descriptor_paths.h"
#include "platform/path_map.h"
#include "view/mount_table.h"
#include "platform/volume_capabilities.h"
#include "view/underlying_tree.h"

namespace zephlore {
namespace {

constexpr const char* kRetryKey = "retryViews";

bool holds(const std::string& folder, const std::string& path) {
  return path.compare(0, folder.size(), folder) == 0 &&
         (path.size() == folder.size() || path[folder.size()] == '/' || folder == "/");
}

std::string clockTime(WallTime when) {
  const time_t seconds = std::chrono::system_clock::to_time_t(
      std::chrono::time_point_cast<std::chrono::system_clock::duration>(when));
  struct tm local {};
  char text[16] = "";
  if (localtime_r(&seconds, &local)) strftime(text, sizeof text, "%H:%M", &local);
  return text;
}

std::string viewDownWords(const std::string& folder) {
  return "its view is down, so programs would read compressed files as empty; `zephlore mount --over " + folder +
         "` puts it back";
}

}  // namespace

KRFolderViews::KRFolderViews(std::unique_ptr<view::ViewMounter> mounter, RunLoop& loop, PathMap& map, Env& env)
    : mounter_(std::move(mounter)), loop_(loop), map_(map), env_(env) {}

KRFolderViews::~KRFolderViews() {
  loop_.cancelPerform(this, kRetryKey);
  for (auto& [folder, entry] : views_) stopWatching(entry);
}

void KRFolderViews::foldersChanged(const std::optional<std::vector<std::string>>& folders, bool viewsWanted) {
  const std::vector<std::string> wanted =
      viewsWanted && folders ? *folders : std::vector<std::string>{};
  auto isWanted = [&wanted](const std::string& folder) {
    return std::find(wanted.begin(), wanted.end(), folder) != wanted.end();
  };
  // Folders that lost their view's reason: release the view unless a file
  // in it is still compressed (then it stays, and status says why).
  std::vector<std::string> released;
  for (auto it = views_.begin(); it != views_.end();) {
    if (isWanted(it->first)) {
      ++it;
      continue;
    }
    released.push_back(it->first);
    stopWatching(it->second);
    setDown(it->first, false);
    it = views_.erase(it);
  }
  for (const auto& [folder, why] : kept_) {
    if (!isWanted(folder)) released.push_back(folder);
  }
  kept_.clear();
  for (const std::string& folder : released) {
    std::string why;
    if (!mounter_->unmountIfUnused(folder, &why)) {
      KRLog("ZephloreHelper: %s: %s", folder.c_str(), why.c_str());
      kept_[folder] = why;
    }
  }
  for (const std::string& folder : wanted) {
    // Nothing there is ever compressed: a view would only slow it down. A
    // view already there was given for a reason, and a dead one (its
    // process killed with the previous helper) answers every look with
    // ENOTCONN: asked through it, the volume would seem unfit and the folder
    // would stay behind the dead view for good.
    const bool covered = mounter_->covered(folder);
    if (!covered && !VolumeCapabilities::canHoldCompressedForm(env_, folder)) continue;
    Supervised& entry = views_[folder];
    bool mountedAnew = false;
    if (entry.up || supervise(folder, entry, &mountedAnew)) {
      setDown(folder, false);
      // The view found here had lost its process (killed with the previous
      // helper, or just as this one started): said as for any view that
      // ended, so that the log and status tell it was put back.
      if (covered && mountedAnew) {
        entry.restoredAt = loop_.clock().wallNow();
        KRLog("*** ZephloreHelper: the view found over %s had no process: programs read its compressed files empty; "
              "mounting it again",
              folder.c_str());
        KRLog("ZephloreHelper: the view over %s is back; %s reads at full content again", folder.c_str(),
              folder.c_str());
      }
    } else {
      // The folder is still watched; programs would read files compressed
      // now empty, so nothing in it is compressed until a view covers it.
      setDown(folder, true);
      scheduleRetry();
    }
  }
  refreshMap();
}

bool KRFolderViews::supervise(const std::string& folder, Supervised& entry, bool* mountedAnew) {
  // A view found there (one that outlived the previous helper, or one
  // mounted by hand) is taken as it is: a second one stacked over it would
  // hide it from its own files.
  if (adopt(folder, entry)) return true;
  Error error;
  if (!mounter_->mountOver(folder, &error)) {
    KRLog("*** %s", error.message.c_str());
    return false;
  }
  if (adopt(folder, entry)) {
    if (mountedAnew) *mountedAnew = true;
    return true;
  }
  KRLog("*** ZephloreHelper: a view was mounted over %s, but no process of ours serves it", folder.c_str());
  return false;
}

bool KRFolderViews::adopt(const std::string& folder, Supervised& entry) {
  std::optional<view::ServingView> serving = mounter_->servingView(folder);
  if (!serving) return false;
  if (entry.up && entry.pid == serving->pid) return true;
  stopWatching(entry);
  entry.up = false;
  UniqueFd handle(view::ViewMounter::watchProcess(serving->pid));
  if (!handle) {
    KRLog("*** ZephloreHelper: cannot watch the process of the view over %s: %s", folder.c_str(), strerror(errno));
    return false;
  }
  // Opened through the view's own descriptor, which it took before it
  // covered the folder: the stored folder, reachable after the view ends.
  UniqueFd beneath(mounter_->openTree(*serving));
  if (!beneath) {
    KRLog("*** ZephloreHelper: cannot open the folder beneath the view over %s: %s", folder.c_str(),
          strerror(errno));
    return false;
  }
  entry.beneath = std::move(beneath);
  entry.processHandle = std::move(handle);
  entry.pid = serving->pid;
  entry.up = true;
  entry.watch = loop_.watchFd(entry.processHandle.get(), POLLIN, [this, folder](short) {
    auto found = views_.find(folder);
    if (found == views_.end()) return;
    stopWatching(found->second);  // readable for good from now on
    loop_.post([this, folder] { viewEnded(folder, "ended (its process is gone)"); });
  });
  return true;
}

void KRFolderViews::stopWatching(Supervised& entry) {
  if (entry.watch != 0) loop_.unwatchFd(entry.watch);
  entry.watch = 0;
  entry.processHandle.reset();
}

void KRFolderViews::viewEnded(const std::string& folder, const std::string& how) {
  auto found = views_.find(folder);
  if (found == views_.end() || !found->second.up) return;
  Supervised& entry = found->second;
  stopWatching(entry);
  entry.up = false;
  entry.pid = 0;
  setDown(folder, true);
  KRLog("*** ZephloreHelper: the view over %s %s: programs read its compressed files empty; mounting it again",
        folder.c_str(), how.c_str());
  announce();
  restore(folder);
}

void KRFolderViews::restore(const std::string& folder) {
  auto found = views_.find(folder);
  if (found == views_.end() || found->second.up) return;
  Supervised& entry = found->second;
  if (!supervise(folder, entry)) {
    scheduleRetry();
    announce();
    return;
  }
  entry.restoredAt = loop_.clock().wallNow();
  setDown(folder, false);
  KRLog("ZephloreHelper: the view over %s is back; %s reads at full content again", folder.c_str(), folder.c_str());
  refreshMap();
  if (hooks_.viewRestored) hooks_.viewRestored(folder);
  announce();
}

void KRFolderViews::mountTableChanged() {
  std::vector<std::string> ended, waiting;
  for (const auto& [folder, entry] : views_) {
    if (!entry.up) {
      waiting.push_back(folder);
      continue;
    }
    std::optional<view::ServingView> serving = mounter_->servingView(folder);
    if (!serving || serving->pid != entry.pid) ended.push_back(folder);
  }
  for (const std::string& folder : ended) viewEnded(folder, "left the mount table");
  for (const std::string& folder : waiting) restore(folder);
  refreshMap();
}

void KRFolderViews::setDown(const std::string& folder, bool down) {
  std::lock_guard lock(downLock_);
  if (down) {
    down_.insert(folder);
  } else {
    down_.erase(folder);
  }
}

void KRFolderViews::scheduleRetry() {
  loop_.cancelPerform(this, kRetryKey);
  loop_.performAfterDelay(this, kRetryKey, seconds(kRetryInterval), [this] { retryDownViews(); });
}

void KRFolderViews::retryDownViews() {
  std::vector<std::string> waiting;
  for (const auto& [folder, entry] : views_) {
    if (!entry.up) waiting.push_back(folder);
  }
  for (const std::string& folder : waiting) restore(folder);
}

void KRFolderViews::announce() {
  if (hooks_.changed) hooks_.changed();
}

void KRFolderViews::refreshMap() {
  std::map<std::string, std::string> map = view::liveViews();
  // Our own descriptors reach the stored files whatever the views' processes do.
  std::vector<int> serving;
  for (const auto& [folder, entry] : views_) {
    if (entry.beneath) map[view::absolutePath(folder)] = descriptorPath(entry.beneath.get());
    if (entry.up && entry.pid > 0) serving.push_back(entry.pid);
  }
  map_.replaceAll(std::move(map));
  if (hooks_.servingProcesses) hooks_.servingProcesses(std::move(serving));
}

std::string KRFolderViews::holdReason(const std::string& path) const {
  std::lock_guard lock(downLock_);
  for (const std::string& folder : down_) {
    if (holds(folder, path)) return viewDownWords(folder);
  }
  return "";
}

std::vector<std::string> KRFolderViews::describe() const {
  std::vector<std::string> lines;
  for (const auto& [folder, entry] : views_) {
    if (!entry.up) {
      lines.push_back("not compressing in " + folder + ": " + viewDownWords(folder));
    } else if (entry.restoredAt) {
      lines.push_back(folder + ": full content through its view (restored at " + clockTime(*entry.restoredAt) +
                      " after it ended)");
    } else {
      lines.push_back(folder + ": full content through its view");
    }
  }
  for (const auto& [folder, why] : kept_) lines.push_back(folder + ": " + why);
  return lines;
}

}  // namespace zephlore
