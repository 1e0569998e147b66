// An Env that works on the stored files beneath views: every path it is
// given goes through a PathMap first, so the code above keeps the paths
// users see. Descriptors need no mapping: they were opened through it.
#pragma once

#include <fcntl.h>

#include "platform/env_wrapper.h"
#include "platform/path_map.h"

namespace zephlore {

class PathMappingEnv : public EnvWrapper {
 public:
  // `target` and `map` must outlive this.
  PathMappingEnv(Env& target, const PathMap& map) : EnvWrapper(target), map_(map) {}

  int open(const std::string& path, int flags, mode_t mode) override;
  int openLocked(const std::string& path, int flags, mode_t mode) override;
  int openTmpFile(const std::string& dir, mode_t mode) override;
  int linkTmpFile(int fd, const std::string& path) override;
  int lstat(const std::string& path, struct stat* st) override;
  int stat(const std::string& path, struct stat* st) override;
  int statfs(const std::string& path, struct statfs* st) override;
  int statvfs(const std::string& path, struct statvfs* st) override;
  int rename(const std::string& from, const std::string& to) override;
  int exchange(const std::string& a, const std::string& b) override;
  int unlink(const std::string& path) override;
  int mkdir(const std::string& path, mode_t mode) override;
  int fsyncDirectory(const std::string& path) override;
  // Resolved beneath, and answered as a shown path: what lies under the
  // stored folder is named under the shown one.
  std::optional<std::string> realPath(const std::string& path) override;
  // A name relative to a descriptor needs no mapping; a path (AT_FDCWD) does.
  int fstatAt(int dir_fd, const std::string& name, struct stat* st, int flags) override;
  int openAt(int dir_fd, const std::string& name, int flags, mode_t mode) override;
  int accessAt(int dir_fd, const std::string& name, int mode) override;
  int statxAt(int dir_fd, const std::string& name, int flags, unsigned mask, struct statx* out) override;
  ssize_t getxattr(const FileRef& file, const std::string& name, void* buf, size_t n) override;
  int setxattr(const FileRef& file, const std::string& name, const void* value, size_t n,
               int flags) override;
  int removexattr(const FileRef& file, const std::string& name) override;
  std::optional<std::vector<std::string>> listxattr(const FileRef& file) override;
  ssize_t xattrListSize(const FileRef& file) override;
  std::optional<std::vector<std::string>> listDirectory(const std::string& path) override;
  int access(const std::string& path, int mode) override;
  std::optional<VolumeDescription> describeVolume(const std::string& path) override;

 private:
  std::string mapped(const std::string& path) const { return map_.toAccess(path); }
  FileRef mapped(const FileRef& file) const;
  std::string mappedAt(int dir_fd, const std::string& name) const {
    return dir_fd == AT_FDCWD ? map_.toAccess(name) : name;
  }

  const PathMap& map_;
};

}  // namespace zephlore
