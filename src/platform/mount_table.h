// This process's mount table (/proc/self/mountinfo), and the kernel side of
// FUSE mounts: whether a mount's server is gone, unmounting through
// fusermount3 (which works for an unprivileged user and for a mount whose
// server is gone).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zephlore {

// One line of the mount table.
struct MountEntry {
  unsigned major = 0;
  unsigned minor = 0;
  std::string mountPoint;  // octal escapes (\040 ...) decoded
  std::string fsType;
  std::string source;
  std::string superOptions;  // "rw,user_id=...": the file system's own options
};
std::optional<MountEntry> parseMountInfoLine(const std::string& line);

// A field of the mount table with its octal escapes undone ("\040" is a
// space); a backslash not followed by three octal digits stays as it is.
std::string unescapeMountField(const std::string& field);

// Every mount this process sees, in the table's order (later ones lie on top
// of earlier ones on the same mount point).
std::vector<MountEntry> mountTable();

// Whether the server of the FUSE mount on `mountPoint` is gone (ENOTCONN).
// Asked of the server every time: the kernel answers stat() from its cache
// for a second after it is gone.
bool mountServerGone(const std::string& mountPoint);

// Runs fusermount3 to unmount `mountPoint` (`lazy`: detach it even while
// files in it are open); whether it succeeded.
bool unmountFuse(const std::string& mountPoint, bool lazy);

}  // namespace zephlore
