// Mounts and unmounts, from /proc/self/mountinfo (the kernel wakes a poll on
// it with POLLPRI when the table changes). Each change is posted on the
// default notification center with "NSDevicePath" set to the mount point.
// Linux says nothing before an unmount: there is no will-unmount.
#pragma once

#include <set>
#include <string>

#include "base/notification_center.h"
#include "base/run_loop.h"

namespace zephlore {

inline constexpr const char* kDidMountNotification = "NSWorkspaceDidMountNotification";
inline constexpr const char* kDidUnmountNotification = "NSWorkspaceDidUnmountNotification";
inline constexpr const char* kDevicePathKey = "NSDevicePath";

class MountWatcher {
 public:
  // Watches on `loop` and posts on `center`; `table` is the file to read
  // (tests may name another).
  MountWatcher(RunLoop& loop, NotificationCenter& center, std::string table = "/proc/self/mountinfo");
  ~MountWatcher();
  MountWatcher(const MountWatcher&) = delete;
  MountWatcher& operator=(const MountWatcher&) = delete;

  // Re-reads the table and posts what changed (the poll calls it).
  void check();

  // The mount points of a mountinfo text, octal escapes undone.
  static std::set<std::string> parse(const std::string& text);

 private:
  std::set<std::string> read();

  RunLoop& loop_;
  NotificationCenter& center_;
  std::string table_;
  int fd_ = -1;
  RunLoop::WatchId watch_ = 0;
  std::set<std::string> mount_points_;
};

}  // namespace zephlore
