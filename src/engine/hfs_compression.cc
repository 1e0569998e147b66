#include "engine/hfs_compression.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/attribute_names.h"
#include "platform/env.h"
#include "platform/file_flags.h"

namespace zephlore {
namespace {

bool exists(Env& env, const FileRef& file) {
  struct stat st;
  return (file.isDescriptor() ? env.fstat(file.fd, &st) : env.lstat(file.path, &st)) == 0;
}

bool isCompressed(Env& env, const FileRef& file) {
  if (!exists(env, file)) return false;
  std::optional<uint32_t> flags = FileFlags::get(env, file);
  return flags && (*flags & FileFlags::kUFCompressed) != 0;
}

bool setCompressed(Env& env, const FileRef& file, bool compressed) {
  if (!exists(env, file)) return false;
  std::optional<uint32_t> flags = FileFlags::get(env, file);
  if (!flags) {
    // A malformed word is ours to overwrite; a read error is not.
    if (errno != EINVAL) return false;
    flags = 0;
  }
  const bool set = (*flags & FileFlags::kUFCompressed) != 0;
  if (set && !compressed) {
    if (!FileFlags::set(env, file, *flags & ~FileFlags::kUFCompressed)) return false;
  } else if (!set && compressed) {
    if (!FileFlags::set(env, file, *flags | FileFlags::kUFCompressed)) {
      KRLog("Could not set UF_COMPRESSED flag for file %s: %u [%s]", file.describe().c_str(),
            static_cast<unsigned>(errno), strerror(errno));
      return false;
    }
  }
  return isCompressed(env, file) == compressed;
}

}  // namespace

bool HFSCompression::isFileUFCompressed(Env& env, const std::string& path) {
  return isCompressed(env, FileRef::atPath(path));
}

bool HFSCompression::isFileUFCompressed(Env& env, int fd) { return isCompressed(env, FileRef::descriptor(fd)); }

bool HFSCompression::setFileAsUFCompressed(Env& env, const std::string& path, bool compressed) {
  return setCompressed(env, FileRef::atPath(path), compressed);
}

bool HFSCompression::setFileAsUFCompressed(Env& env, int fd, bool compressed) {
  return setCompressed(env, FileRef::descriptor(fd), compressed);
}

bool HFSCompression::hasCompressedAttributes(Env& env, const std::string& path) {
  auto names = env.listxattr(FileRef::atPath(path, true));
  return names && std::find(names->begin(), names->end(), attr::kDecmpfs) != names->end();
}

}  // namespace zephlore
