// Views in the mount table, and unmounting them through fusermount3 (which
// works for an unprivileged user and for a view whose process is gone).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/error.h"

namespace zephlore::view {

// The file-system type views carry in the mount table.
inline constexpr const char* kViewFileSystemType = "fuse.zephlore";

struct ViewMountEntry {
  std::string mountPoint;  // unescaped
  std::string source;      // unescaped
  // Mounted without allow_other: only the user who mounted it may enter it.
  bool othersLockedOut = false;
};

// What a view that locks others out means, and the one line that fixes it;
// for zephlore status and the helper's log.
std::string othersLockedOutAdvice(const std::string& mountPoint);

// The views in the mount table, in its order (later ones lie on top).
std::vector<ViewMountEntry> viewMounts();

// Whether a view is mounted exactly on `mountPoint` (an absolute path).
bool isViewMounted(const std::string& mountPoint);
// Whether the view there has lost its process (ENOTCONN).
bool isViewDisconnected(const std::string& mountPoint);

// Whether `path` is `folder` or lies under it (both absolute).
bool isWithinFolder(const std::string& path, const std::string& folder);

// Whether the view on `view.mountPoint` shows its own folder (mount --over):
// once it is gone, programs read that folder's stored files.
inline bool isOverView(const ViewMountEntry& view) { return view.source == view.mountPoint; }

// The view of ours that holds `path` (its mount point or anything under it)
// when its process is gone, so that programs there get ENOTCONN; none
// otherwise. For the helper as for every command that touches a folder.
std::optional<ViewMountEntry> deadViewCovering(const std::string& path);
inline bool isDeadView(const std::string& path) { return deadViewCovering(path).has_value(); }
// The one command that puts the dead `view` back.
std::string remountCommand(const ViewMountEntry& view);
// A line for commands that meet the dead `view`: what happened and that command.
std::string deadViewAdvice(const ViewMountEntry& view);

// Detaches a view whose process is gone, lazily (programs may still hold
// files open in it): its mount point shows the stored files again at once,
// ready for a view mounted anew.
bool detachDeadView(const std::string& mountPoint, Error* error);

// Unmounts the view on `mountPoint`; `lazy` detaches it even while files in
// it are open. Fails (and changes nothing) when no view is mounted there.
bool unmountView(const std::string& mountPoint, bool lazy, Error* error);

// `path` made absolute and without "." or ".." (the mount table's form),
// without following a final symbolic link.
std::string absolutePath(const std::string& path);

}  // namespace zephlore::view
