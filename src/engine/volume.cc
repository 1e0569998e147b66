#include "engine/volume.h"

#include <sys/stat.h>
#include <sys/statfs.h>

#include "platform/env.h"
#include "platform/volume_capabilities.h"
#include "platform/volume_description.h"

namespace zephlore {

bool QVVolume::areInSameVolumePath(Env& env, const std::string& path, const std::string& andPath) {
  struct stat a, b;
  return env.lstat(path, &a) == 0 && env.lstat(andPath, &b) == 0 && a.st_dev == b.st_dev;
}

std::string QVVolume::fileSystemTypeForPath(Env& env, const std::string& path) {
  struct statfs fs;
  if (env.statfs(path, &fs) != 0) return "Unknown";
  return fileSystemTypeName(static_cast<uint64_t>(fs.f_type));
}

bool QVVolume::isHFSPlusFileSystemForPath(Env& env, const std::string& path) {
  return VolumeCapabilities::canHoldCompressedForm(env, path);
}

}  // namespace zephlore
