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

bool exists(const FileRef& file) {
  struct stat st;
  Env& env = Env::shared();
  return (file.isDescriptor() ? env.fstat(file.fd, &st) : env.lstat(file.path, &st)) == 0;
}

bool isCompressed(const FileRef& file) {
  if (!exists(file)) return false;
  std::optional<uint32_t> flags = FileFlags::get(file);
  return flags && (*flags & FileFlags::kUFCompressed) != 0;
}

bool setCompressed(const FileRef& file, bool compressed) {
  if (!exists(file)) return false;
  std::optional<uint32_t> flags = FileFlags::get(file);
  if (!flags) {
    // A malformed word is ours to overwrite; a read error is not.
    if (errno != EINVAL) return false;
    flags = 0;
  }
  const bool set = (*flags & FileFlags::kUFCompressed) != 0;
  if (set && !compressed) {
    if (!FileFlags::set(file, *flags & ~FileFlags::kUFCompressed)) return false;
  } else if (!set && compressed) {
    if (!FileFlags::set(file, *flags | FileFlags::kUFCompressed)) {
      KRLog("Could not set UF_COMPRESSED flag for file %s: %u [%s]", file.describe().c_str(),
            static_cast<unsigned>(errno), strerror(errno));
      return false;
    }
  }
  return isCompressed(file) == compressed;
}

}  // namespace

bool HFSCompression::isFileUFCompressed(const std::string& path) {
  return isCompressed(FileRef::atPath(path));
}

bool HFSCompression::isFileUFCompressed(int fd) { return isCompressed(FileRef::descriptor(fd)); }

bool HFSCompression::setFileAsUFCompressed(const std::string& path, bool compressed) {
  return setCompressed(FileRef::atPath(path), compressed);
}

bool HFSCompression::setFileAsUFCompressed(int fd, bool compressed) {
  return setCompressed(FileRef::descriptor(fd), compressed);
}

bool HFSCompression::hasCompressedAttributes(const std::string& path) {
  auto names = Env::shared().listxattr(FileRef::atPath(path, true));
  return names && std::find(names->begin(), names->end(), attr::kDecmpfs) != names->end();
}

}  // namespace zephlore
