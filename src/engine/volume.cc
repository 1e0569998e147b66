#include "engine/volume.h"

#include <sys/stat.h>
#include <sys/statfs.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/env.h"
#include "platform/volume_capabilities.h"
#include "platform/volume_description.h"

namespace zephlore {

int16_t QVVolume::volumeReferenceNumberForPath(const std::string& path) {
  struct stat st;
  if (Env::shared().lstat(path, &st) != 0) return -1;
  uint64_t dev = st.st_dev;
  uint16_t folded = static_cast<uint16_t>(dev ^ (dev >> 16) ^ (dev >> 32) ^ (dev >> 48));
  if (folded == 0xFFFF) folded = 0xFFFE;  // -1 means failure
  return static_cast<int16_t>(folded);
}

bool QVVolume::areInSameVolumePath(const std::string& path, const std::string& andPath) {
  struct stat a, b;
  Env& env = Env::shared();
  return env.lstat(path, &a) == 0 && env.lstat(andPath, &b) == 0 && a.st_dev == b.st_dev;
}

bool QVVolume::fsIsHFSVolumeForPath(const std::string& path) {
  return isHFSPlusFileSystemForPath(path);
}

bool QVVolume::fsIsVolumeEjectableForPath(const std::string& path) {
  auto volume = Env::shared().describeVolume(path);
  return volume && volume->ejectable;
}

bool QVVolume::fsIsVolumeRemovableForPath(const std::string& path) {
  auto volume = Env::shared().describeVolume(path);
  return volume && volume->removable;
}

bool QVVolume::fsIsVolumeInternalForPath(const std::string& path) {
  auto volume = Env::shared().describeVolume(path);
  return volume && volume->internal;
}

bool QVVolume::volumeInfoForPath(const std::string& path, QVVolumeInfo* info) {
  auto volume = Env::shared().describeVolume(path);
  if (!volume) return false;
  if (info) {
    info->isHFSPlus = isHFSPlusFileSystemForPath(path);
    info->isRemovable = volume->removable;
    info->isEjectable = volume->ejectable;
    info->isInternal = volume->internal;
    info->isExternal = volume->external;
    info->isWritable = volume->writable;
  }
  return true;
}

std::string QVVolume::fileSystemTypeForPath(const std::string& path) {
  struct statfs fs;
  if (Env::shared().statfs(path, &fs) != 0) return "Unknown";
  return fileSystemTypeName(static_cast<uint64_t>(fs.f_type));
}

bool QVVolume::isHFSPlusFileSystemForPath(const std::string& path) {
  return VolumeCapabilities::canHoldCompressedForm(path);
}

uint32_t QVVolume::volumeCapabilitiesForVolumeAtPath(const std::string& path) {
  struct stat st;
  if (Env::shared().stat(path, &st) != 0) {
    KRLog("Could not read the capabilities of volume %s, errno: %d [%s]", path.c_str(), errno,
          strerror(errno));
    return 0;
  }
  return VolumeCapabilities::supportsExchange(path) ? kVolumeCapabilityExchange : 0;
}

bool QVVolume::exchangedataSupportedInVolumeForPath(const std::string& path) {
  return exchangedataSupportedInVolumeForCPath(path.c_str());
}

bool QVVolume::exchangedataSupportedInVolumeForCPath(const char* path) {
  if (!path) return false;
  return (volumeCapabilitiesForVolumeAtPath(path) & kVolumeCapabilityExchange) != 0;
}

}  // namespace zephlore
