// Test support: an Env that forwards every call to the real system and first
// tells a hook which operation is about to run. The crash tests use it to
// stop a compressing child at a chosen operation and kill it there.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/env.h"

namespace zephlore::testing {

class HookedEnv final : public Env {
 public:
  using Hook = std::function<void(const char* op)>;
  explicit HookedEnv(Hook hook, Env* base = &Env::system()) : hook_(std::move(hook)), base_(base) {}

  int open(const std::string& path, int flags, mode_t mode) override {
    return step("open"), base_->open(path, flags, mode);
  }
  int openLocked(const std::string& path, int flags, mode_t mode) override {
    return step("openLocked"), base_->openLocked(path, flags, mode);
  }
  int openTmpFile(const std::string& dir, mode_t mode) override {
    return step("openTmpFile"), base_->openTmpFile(dir, mode);
  }
  int linkTmpFile(int fd, const std::string& path) override {
    return step("linkTmpFile"), base_->linkTmpFile(fd, path);
  }
  int close(int fd) override { return step("close"), base_->close(fd); }
  ssize_t pread(int fd, void* buf, size_t n, uint64_t offset) override {
    return step("pread"), base_->pread(fd, buf, n, offset);
  }
  ssize_t pwrite(int fd, const void* buf, size_t n, uint64_t offset) override {
    return step("pwrite"), base_->pwrite(fd, buf, n, offset);
  }
  int fsync(int fd) override { return step("fsync"), base_->fsync(fd); }
  int ftruncate(int fd, uint64_t length) override { return step("ftruncate"), base_->ftruncate(fd, length); }
  int fstat(int fd, struct stat* st) override { return step("fstat"), base_->fstat(fd, st); }
  int fstatfs(int fd, struct statfs* st) override { return step("fstatfs"), base_->fstatfs(fd, st); }
  int fchmod(int fd, mode_t mode) override { return step("fchmod"), base_->fchmod(fd, mode); }
  int fchown(int fd, uid_t uid, gid_t gid) override { return step("fchown"), base_->fchown(fd, uid, gid); }
  int futimens(int fd, const struct timespec times[2]) override {
    return step("futimens"), base_->futimens(fd, times);
  }
  std::optional<std::vector<uint8_t>> getAcl(int fd) override { return step("getAcl"), base_->getAcl(fd); }
  int setAcl(int fd, const std::vector<uint8_t>& acl) override { return step("setAcl"), base_->setAcl(fd, acl); }
  int lstat(const std::string& path, struct stat* st) override { return step("lstat"), base_->lstat(path, st); }
  int stat(const std::string& path, struct stat* st) override { return step("stat"), base_->stat(path, st); }
  int statfs(const std::string& path, struct statfs* st) override {
    return step("statfs"), base_->statfs(path, st);
  }
  int statvfs(const std::string& path, struct statvfs* st) override {
    return step("statvfs"), base_->statvfs(path, st);
  }
  int rename(const std::string& from, const std::string& to) override {
    return step("rename"), base_->rename(from, to);
  }
  int exchange(const std::string& a, const std::string& b) override {
    return step("exchange"), base_->exchange(a, b);
  }
  int unlink(const std::string& path) override { return step("unlink"), base_->unlink(path); }
  int mkdir(const std::string& path, mode_t mode) override { return step("mkdir"), base_->mkdir(path, mode); }
  int fsyncDirectory(const std::string& path) override {
    return step("fsyncDirectory"), base_->fsyncDirectory(path);
  }
  std::optional<std::string> realPath(const std::string& path) override {
    return step("realPath"), base_->realPath(path);
  }
  ssize_t getxattr(const FileRef& file, const std::string& name, void* buf, size_t n) override {
    return step("getxattr"), base_->getxattr(file, name, buf, n);
  }
  int setxattr(const FileRef& file, const std::string& name, const void* value, size_t n, int flags) override {
    return step("setxattr"), base_->setxattr(file, name, value, n, flags);
  }
  int removexattr(const FileRef& file, const std::string& name) override {
    return step("removexattr"), base_->removexattr(file, name);
  }
  std::optional<std::vector<std::string>> listxattr(const FileRef& file) override {
    return step("listxattr"), base_->listxattr(file);
  }
  ssize_t xattrListSize(const FileRef& file) override {
    return step("xattrListSize"), base_->xattrListSize(file);
  }
  std::optional<std::vector<FileUser>> fileUsers(dev_t device, ino_t inode) override {
    return step("fileUsers"), base_->fileUsers(device, inode);
  }
  std::optional<VolumeDescription> describeVolume(const std::string& path) override {
    return step("describeVolume"), base_->describeVolume(path);
  }

 private:
  int step(const char* op) {
    hook_(op);
    return 0;
  }

  Hook hook_;
  Env* base_;
};

}  // namespace zephlore::testing
