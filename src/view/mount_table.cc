#include "view/mount_table.h"

#include <unistd.h>

#include <cerrno>
#include <optional>
#include <sstream>
#include <vector>

#include "platform/mount_table.h"

namespace zephlore::view {

std::string absolutePath(const std::string& path) {
  std::string full = path;
  if (full.empty() || full[0] != '/') {
    std::vector<char> cwd(4096);
    if (getcwd(cwd.data(), cwd.size())) full = std::string(cwd.data()) + "/" + full;
  }
  std::vector<std::string> parts;
  std::stringstream in(full);
  for (std::string part; std::getline(in, part, '/');) {
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
      continue;
    }
    parts.push_back(part);
  }
  std::string out;
  for (const std::string& part : parts) out += "/" + part;
  return out.empty() ? "/" : out;
}

std::vector<ViewMountEntry> viewMounts() {
  std::vector<ViewMountEntry> views;
  for (MountEntry& entry : mountTable()) {
    if (entry.fsType != kViewFileSystemType) continue;
    const bool allowOther = ("," + entry.superOptions + ",").find(",allow_other,") != std::string::npos;
    views.push_back({std::move(entry.mountPoint), std::move(entry.source), !allowOther});
  }
  return views;
}

std::string othersLockedOutAdvice(const std::string& mountPoint) {
  return "only the user who mounted the view on " + mountPoint +
         " may enter it: other users, and the system's services that run as root (backups, indexers, "
         "updatedb), get \"Permission denied\" there and skip the folder. To let them in, the administrator "
         "adds the line user_allow_other to /etc/fuse.conf; views mounted afterwards let them in (checking "
         "each file's owner and mode as beneath)";
}

bool isViewMounted(const std::string& mountPoint) {
  for (const ViewMountEntry& view : viewMounts()) {
    if (view.mountPoint == mountPoint) return true;
  }
  return false;
}

bool isViewDisconnected(const std::string& mountPoint) {
  return mountServerGone(mountPoint) && isViewMounted(mountPoint);
}

bool isWithinFolder(const std::string& path, const std::string& folder) {
  if (folder == "/") return true;
  return path.compare(0, folder.size(), folder) == 0 && (path.size() == folder.size() || path[folder.size()] == '/');
}

std::optional<ViewMountEntry> deadViewCovering(const std::string& path) {
  const std::string absolute = absolutePath(path);
  std::optional<ViewMountEntry> innermost;
  for (ViewMountEntry& view : viewMounts()) {
    // Later entries are mounted on top of earlier ones.
    if (isWithinFolder(absolute, view.mountPoint) &&
        (!innermost || view.mountPoint.size() >= innermost->mountPoint.size())) {
      innermost = std::move(view);
    }
  }
  if (!innermost || !mountServerGone(innermost->mountPoint)) return std::nullopt;
  return innermost;
}

std::string remountCommand(const ViewMountEntry& view) {
  return isOverView(view) ? "zephlore mount --over " + view.mountPoint
                          : "zephlore mount " + view.source + " " + view.mountPoint;
}

std::string deadViewAdvice(const ViewMountEntry& view) {
  return "the view on " + view.mountPoint +
         " has stopped (its process is gone: \"Transport endpoint is not connected\"); put it back with: " +
         remountCommand(view);
}

bool detachDeadView(const std::string& mountPoint, Error* error) { return unmountView(mountPoint, true, error); }

bool unmountView(const std::string& mountPoint, bool lazy, Error* error) {
  if (!isViewMounted(mountPoint)) {
    return fail(error, "posix", EINVAL, "no view is mounted on " + mountPoint);
  }
  // Another program that looks at the views for a moment (a zephlore
  // command checking for dead views, a file manager) makes the mount busy
  // for that moment: a plain unmount is tried a few times before it is
  // called busy.
  const int attempts = lazy ? 1 : 25;
  for (int attempt = 1;; ++attempt) {
    if (unmountFuse(mountPoint, lazy)) return true;
    if (attempt >= attempts || !isViewMounted(mountPoint)) break;
  }
  return fail(error, "posix", EBUSY,
              "fusermount3 could not unmount " + mountPoint + (lazy ? "" : " (is a file in it still open?)"));
}

}  // namespace zephlore::view
