// QVVolume: which volume a path lies on and whether it can hold the
// compressed form.
//
// A volume is identified by the device number of the file system that holds
// the path. "HFS+" in the names below means what the compressed form needs
// on Linux: the volume accepts user attributes and a 256 KiB resource fork
// fits (measured once per volume).
#pragma once

#include <string>

#include "platform/env.h"

namespace zephlore {

class QVVolume {
 public:
  QVVolume() = delete;

  // Both paths exist and lie on one volume.
  static bool areInSameVolumePath(Env& env, const std::string& path, const std::string& andPath);
  // "ext4", "xfs", "btrfs", "tmpfs", ..., or "Unknown".
  static std::string fileSystemTypeForPath(Env& env, const std::string& path);
  // The volume can hold the compressed form.
  static bool isHFSPlusFileSystemForPath(Env& env, const std::string& path);
};

}  // namespace zephlore
