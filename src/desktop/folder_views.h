// Views over the watched folders. With "transparentView" on (and FUSE
// usable), every watched folder gets a view, so programs read its compressed
// files at full content; the helper itself works on the stored files beneath
// the views, through PathMap. A folder no longer watched keeps its view while
// a file in it is still compressed, since programs would read it empty.
//
// The views are supervised: each view's process is watched (a pidfd on the
// run loop), and so is the mount table. A view that ends is mounted again at
// once; until it is back, nothing in its folder is compressed (holdReason),
// because programs would read the new compressed files empty. A view found
// at start-up (views outlive the helper) is adopted, never stacked over; one
// found dead (killed with the previous helper) is replaced, and said to be.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/run_loop.h"
#include "base/unique_fd.h"
#include "platform/env.h"
#include "platform/path_map.h"
#include "view/view_mounter.h"

namespace zephlore {

class KRFolderViews {
 public:
  // A view that could not be mounted is tried again this often.
  static constexpr double kRetryInterval = 30.0;

  struct Hooks {
    // A folder's view is back after it was down: files skipped meanwhile
    // are to be found again.
    std::function<void(const std::string& folder)> viewRestored;
    // What describe() says has changed.
    std::function<void()> changed;
    // The processes serving the views now, whenever the map is refreshed:
    // their work is the helper's own, not other programs' load.
    std::function<void(std::vector<int> pids)> servingProcesses;
  };

  // `map` is where the helper's Env looks up the trees beneath the views;
  // folders are looked at through `env`.
  KRFolderViews(std::unique_ptr<view::ViewMounter> mounter, RunLoop& loop, PathMap& map, Env& env);
  ~KRFolderViews();
  KRFolderViews(const KRFolderViews&) = delete;
  KRFolderViews& operator=(const KRFolderViews&) = delete;

  void setHooks(Hooks hooks) { hooks_ = std::move(hooks); }

  // Main thread, with every new list of watched folders, before the watcher
  // gets it: mounts or adopts the missing views, releases those of folders
  // no longer watched, and maps the folders to the trees beneath.
  void foldersChanged(const std::optional<std::vector<std::string>>& folders, bool viewsWanted);

  // Main thread, after the mount table changed: a view of ours that is gone
  // is mounted again, one mounted by hand over a folder waiting for it is
  // adopted; then the map is refreshed.
  void mountTableChanged();

  // Points PathMap at the trees beneath the views that exist now (at
  // start-up, before any file is touched, and after a mount table change).
  void refreshMap();

  // Why `path` must not be compressed now ("" when it may): it lies in a
  // watched folder whose view is down. Any thread.
  std::string holdReason(const std::string& path) const;

  // One line per folder with a view: mounted, restored, down, or kept and why.
  std::vector<std::string> describe() const;

 private:
  struct Supervised {
    // The helper's own descriptor of the stored folder: it outlives the
    // view's process, so the helper still reaches the files beneath while
    // the view is being mounted again.
    UniqueFd beneath;
    pid_t pid = 0;
    UniqueFd processHandle;  // readable once the view's process has ended
    RunLoop::WatchId watch = 0;
    bool up = false;
    std::optional<WallTime> restoredAt;
  };

  // Mounts a view over `folder` (or adopts the live one) and watches its
  // process; false when the folder stays without a view. `*mountedAnew`
  // is set when no live view was there to adopt.
  bool supervise(const std::string& folder, Supervised& entry, bool* mountedAnew = nullptr);
  bool adopt(const std::string& folder, Supervised& entry);
  void stopWatching(Supervised& entry);
  void viewEnded(const std::string& folder, const std::string& how);
  void restore(const std::string& folder);
  void setDown(const std::string& folder, bool down);
  void scheduleRetry();
  void retryDownViews();
  void announce();

  std::unique_ptr<view::ViewMounter> mounter_;
  RunLoop& loop_;
  PathMap& map_;
  Env& env_;
  Hooks hooks_;
  std::map<std::string, Supervised> views_;  // watched folders that want a view
  std::map<std::string, std::string> kept_;  // former folders whose view stays -> why

  mutable std::mutex downLock_;  // the compression thread asks holdReason
  std::set<std::string> down_;   // watched folders without a live view
};

}  // namespace zephlore
