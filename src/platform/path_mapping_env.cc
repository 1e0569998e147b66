#include "platform/path_mapping_env.h"

namespace zephlore {

FileRef PathMappingEnv::mapped(const FileRef& file) const {
  if (file.isDescriptor()) return file;
  FileRef copy = file;
  copy.path = map_.toAccess(file.path);
  return copy;
}

int PathMappingEnv::open(const std::string& path, int flags, mode_t mode) {
  return target().open(mapped(path), flags, mode);
}
int PathMappingEnv::openLocked(const std::string& path, int flags, mode_t mode) {
  return target().openLocked(mapped(path), flags, mode);
}
int PathMappingEnv::openTmpFile(const std::string& dir, mode_t mode) {
  return target().openTmpFile(mapped(dir), mode);
}
int PathMappingEnv::linkTmpFile(int fd, const std::string& path) {
  return target().linkTmpFile(fd, mapped(path));
}
int PathMappingEnv::lstat(const std::string& path, struct stat* st) {
  return target().lstat(mapped(path), st);
}
int PathMappingEnv::stat(const std::string& path, struct stat* st) {
  return target().stat(mapped(path), st);
}
int PathMappingEnv::statfs(const std::string& path, struct statfs* st) {
  return target().statfs(mapped(path), st);
}
int PathMappingEnv::statvfs(const std::string& path, struct statvfs* st) {
  return target().statvfs(mapped(path), st);
}
int PathMappingEnv::rename(const std::string& from, const std::string& to) {
  return target().rename(mapped(from), mapped(to));
}
int PathMappingEnv::exchange(const std::string& a, const std::string& b) {
  return target().exchange(mapped(a), mapped(b));
}
int PathMappingEnv::unlink(const std::string& path) { return target().unlink(mapped(path)); }
int PathMappingEnv::mkdir(const std::string& path, mode_t mode) {
  return target().mkdir(mapped(path), mode);
}
int PathMappingEnv::fsyncDirectory(const std::string& path) {
  return target().fsyncDirectory(mapped(path));
}
std::optional<std::string> PathMappingEnv::realPath(const std::string& path) {
  const std::optional<std::pair<std::string, std::string>> entry = map_.entryFor(path);
  if (!entry) return target().realPath(path);
  std::optional<std::string> resolved = target().realPath(map_.toAccess(path));
  const std::optional<std::string> stored = target().realPath(entry->second + "/.");
  if (!resolved || !stored) return resolved;
  // A link that leads out of the folder keeps its own answer.
  const std::string& base = *stored;
  if (base == "/") return resolved;
  const bool under = *resolved == base ||
                     (resolved->compare(0, base.size(), base) == 0 && (*resolved)[base.size()] == '/');
  if (!under) return resolved;
  const std::string rest = resolved->substr(base.size());
  return entry->first == "/" ? (rest.empty() ? "/" : rest) : entry->first + rest;
}
int PathMappingEnv::fstatAt(int dir_fd, const std::string& name, struct stat* st, int flags) {
  return target().fstatAt(dir_fd, mappedAt(dir_fd, name), st, flags);
}
int PathMappingEnv::openAt(int dir_fd, const std::string& name, int flags, mode_t mode) {
  return target().openAt(dir_fd, mappedAt(dir_fd, name), flags, mode);
}
int PathMappingEnv::accessAt(int dir_fd, const std::string& name, int mode) {
  return target().accessAt(dir_fd, mappedAt(dir_fd, name), mode);
}
int PathMappingEnv::statxAt(int dir_fd, const std::string& name, int flags, unsigned mask, struct statx* out) {
  return target().statxAt(dir_fd, mappedAt(dir_fd, name), flags, mask, out);
}
ssize_t PathMappingEnv::getxattr(const FileRef& file, const std::string& name, void* buf,
                                 size_t n) {
  return target().getxattr(mapped(file), name, buf, n);
}
int PathMappingEnv::setxattr(const FileRef& file, const std::string& name, const void* value,
                             size_t n, int flags) {
  return target().setxattr(mapped(file), name, value, n, flags);
}
int PathMappingEnv::removexattr(const FileRef& file, const std::string& name) {
  return target().removexattr(mapped(file), name);
}
std::optional<std::vector<std::string>> PathMappingEnv::listxattr(const FileRef& file) {
  return target().listxattr(mapped(file));
}
ssize_t PathMappingEnv::xattrListSize(const FileRef& file) {
  return target().xattrListSize(mapped(file));
}
std::optional<std::vector<std::string>> PathMappingEnv::listDirectory(const std::string& path) {
  return target().listDirectory(mapped(path));
}
int PathMappingEnv::access(const std::string& path, int mode) {
  return target().access(mapped(path), mode);
}
std::optional<VolumeDescription> PathMappingEnv::describeVolume(const std::string& path) {
  return target().describeVolume(mapped(path));
}

}  // namespace zephlore
