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

int16_t QVVolume::volumeReferenceNumberForPath(Env& env, const std::string& path) {
  struct stat st;
  if (env.lstat(path, &st) != 0) return -1;
  uint64_t dev = st.st_dev;
  uint16_t folded = static_cast<uint16_t>(dev ^ (dev >> 16) ^ (dev >> 32) ^ (dev >> 48));
  if (folded == 0xFFFF) folded = 0xFFFE;  // -1 means failure
  return static_cast<int16_t>(folded);
}

bool QVVolume::areInSameVolumePath(Env& env, const std::string& path, const std::string& andPath) {
  struct stat a, b;
  return env.lstat(path, &a) == 0 && env.lstat(andPath, &b) == 0 && a.st_dev == b.st_dev;
}

bool QVVolume::fsIsHFSVolumeForPath(Env& env, const std::string& path) {
  return isHFSPlusFileSystemForPath(env, path);
}

bool QVVolume::fsIsVolumeEjectableForPath(Env& env, const std::string& path) {
  auto volume = env.describeVolume(path);
  return volume && volume->ejectable;
}

bool QVVolume::fsIsVolumeRemovableForPath(Env& env, const std::string& path) {
  auto volume = env.describeVolume(path);
  return volume && volume->removable;
}

bool QVVolume::fsIsVolumeInternalForPath(Env& env, const std::string& path) {
  auto volume = env.describeVolume(path);
  return volume && volume->internal;
}

bool QVVolume::volumeInfoForPath(Env& env, const std::string& path, QVVolumeInfo* info) {
  auto volume = env.describeVolume(path);
  if (!volume) return false;
  if (info) {
    info->isHFSPlus = isHFSPlusFileSystemForPath(env, path);
    info->isRemovable = volume->removable;
    info->isEjectable = volume->ejectable;
    info->isInternal = volume->internal;
    info->isExternal = volume->external;
    info->isWritable = volume->writable;
  }
  return true;
}

std::string QVVolume::fileSystemTypeForPath(Env& env, const std::string& path) {
  struct statfs fs;
  if (env.statfs(path, &fs) != 0) return "Unknown";
  return fileSystemTypeName(static_cast<uint64_t>(fs.f_type));
}

bool QVVolume::isHFSPlusFileSystemForPath(Env& env, const std::string& path) {
  return VolumeCapabilities::canHoldCompressedForm(env, path);
}

uint32_t QVVolume::volumeCapabilitiesForVolumeAtPath(Env& env, const std::string& path) {
  struct stat st;
  if (env.stat(path, &st) != 0) {
    KRLog("Could not read the capabilities of volume %s, errno: %d [%s]", path.c_str(), errno,
          strerror(errno));
    return 0;
  }
  return VolumeCapabilities::supportsExchange(env, path) ? kVolumeCapabilityExchange : 0;
}

bool QVVolume::exchangedataSupportedInVolumeForPath(Env& env, const std::string& path) {
  return exchangedataSupportedInVolumeForCPath(env, path.c_str());
}

bool QVVolume::exchangedataSupportedInVolumeForCPath(Env& env, const char* path) {
  if (!path) return false;
  return (volumeCapabilitiesForVolumeAtPath(env, path) & kVolumeCapabilityExchange) != 0;
}

}  // namespace zephlore
