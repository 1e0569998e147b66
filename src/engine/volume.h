// QVVolume: which volume a path lies on and what that volume can do.
//
// A volume is identified by the device number of the file system that holds
// the path. "HFS+" in the names below means what the compressed form needs
// on Linux: the volume accepts user attributes and a 256 KiB resource fork
// fits (measured once per volume).
#pragma once

#include <cstdint>
#include <string>

#include "platform/env.h"

namespace zephlore {

// Filled by QVVolume::volumeInfoForPath.
struct QVVolumeInfo {
  bool isHFSPlus = false;
  bool isRemovable = false;
  bool isEjectable = false;
  bool isInternal = false;
  bool isExternal = false;
  bool isWritable = false;
};

class QVVolume {
 public:
  QVVolume() = delete;

  // Bit of volumeCapabilitiesForVolumeAtPath(): names can be swapped atomically.
  static constexpr uint32_t kVolumeCapabilityExchange = 0x10;

  // A 16-bit reference folded from the device number of the volume holding
  // `path` (the name itself: a final link is not followed); -1 on failure.
  // Two volumes may fold to one number: areInSameVolumePath() compares the
  // full device numbers.
  static int16_t volumeReferenceNumberForPath(Env& env, const std::string& path);
  // Both paths exist and lie on one volume.
  static bool areInSameVolumePath(Env& env, const std::string& path, const std::string& andPath);

  static bool fsIsHFSVolumeForPath(Env& env, const std::string& path);
  static bool fsIsVolumeEjectableForPath(Env& env, const std::string& path);
  static bool fsIsVolumeRemovableForPath(Env& env, const std::string& path);
  static bool fsIsVolumeInternalForPath(Env& env, const std::string& path);

  // False when the volume cannot be examined; else fills `info`: removable
  // and ejectable media and the bus from /sys where the volume has a disk
  // (all false for tmpfs and the like), writable unless mounted read-only.
  static bool volumeInfoForPath(Env& env, const std::string& path, QVVolumeInfo* info);

  // "ext4", "xfs", "btrfs", "tmpfs", ..., or "Unknown".
  static std::string fileSystemTypeForPath(Env& env, const std::string& path);
  // The volume can hold the compressed form.
  static bool isHFSPlusFileSystemForPath(Env& env, const std::string& path);

  // kVolumeCapabilityExchange when names on the volume can be swapped
  // atomically; 0 otherwise or on failure (logged).
  static uint32_t volumeCapabilitiesForVolumeAtPath(Env& env, const std::string& path);
  static bool exchangedataSupportedInVolumeForPath(Env& env, const std::string& path);
  static bool exchangedataSupportedInVolumeForCPath(Env& env, const char* path);
};

}  // namespace zephlore
