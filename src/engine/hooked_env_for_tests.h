// Test support: an Env that tells a hook which operation is about to run,
// then forwards it to the real system. The crash test stops a child at a
// chosen operation this way and kills it there.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/env.h"

namespace zephlore::testkit {

class HookedEnv final : public Env {
 public:
  explicit HookedEnv(std::function<void(const char* op)> hook) : hook_(std::move(hook)) {}

#define ZEPHLORE_HOOKED(ret, name, params, args) \
  ret name params override {                      \
    hook_(#name);                                 \
    return base_.name args;                       \
  }
  ZEPHLORE_HOOKED(int, open, (const std::string& p, int f, mode_t m), (p, f, m))
  ZEPHLORE_HOOKED(int, openLocked, (const std::string& p, int f, mode_t m), (p, f, m))
  ZEPHLORE_HOOKED(int, openTmpFile, (const std::string& d, mode_t m), (d, m))
  ZEPHLORE_HOOKED(int, linkTmpFile, (int fd, const std::string& p), (fd, p))
  ZEPHLORE_HOOKED(int, close, (int fd), (fd))
  ZEPHLORE_HOOKED(ssize_t, pread, (int fd, void* b, size_t n, uint64_t o), (fd, b, n, o))
  ZEPHLORE_HOOKED(ssize_t, pwrite, (int fd, const void* b, size_t n, uint64_t o), (fd, b, n, o))
  ZEPHLORE_HOOKED(int, fsync, (int fd), (fd))
  ZEPHLORE_HOOKED(int, ftruncate, (int fd, uint64_t n), (fd, n))
  ZEPHLORE_HOOKED(int, fstat, (int fd, struct stat* st), (fd, st))
  ZEPHLORE_HOOKED(int, fstatfs, (int fd, struct statfs* st), (fd, st))
  ZEPHLORE_HOOKED(int, fchmod, (int fd, mode_t m), (fd, m))
  ZEPHLORE_HOOKED(int, fchown, (int fd, uid_t u, gid_t g), (fd, u, g))
  ZEPHLORE_HOOKED(int, futimens, (int fd, const struct timespec t[2]), (fd, t))
  ZEPHLORE_HOOKED(std::optional<std::vector<uint8_t>>, getAcl, (int fd), (fd))
  ZEPHLORE_HOOKED(int, setAcl, (int fd, const std::vector<uint8_t>& a), (fd, a))
  ZEPHLORE_HOOKED(int, lstat, (const std::string& p, struct stat* st), (p, st))
  ZEPHLORE_HOOKED(int, stat, (const std::string& p, struct stat* st), (p, st))
  ZEPHLORE_HOOKED(int, statfs, (const std::string& p, struct statfs* st), (p, st))
  ZEPHLORE_HOOKED(int, statvfs, (const std::string& p, struct statvfs* st), (p, st))
  ZEPHLORE_HOOKED(int, rename, (const std::string& a, const std::string& b), (a, b))
  ZEPHLORE_HOOKED(int, exchange, (const std::string& a, const std::string& b), (a, b))
  ZEPHLORE_HOOKED(int, unlink, (const std::string& p), (p))
  ZEPHLORE_HOOKED(int, mkdir, (const std::string& p, mode_t m), (p, m))
  ZEPHLORE_HOOKED(int, fsyncDirectory, (const std::string& p), (p))
  ZEPHLORE_HOOKED(std::optional<std::string>, realPath, (const std::string& p), (p))
  ZEPHLORE_HOOKED(ssize_t, getxattr, (const FileRef& f, const std::string& k, void* b, size_t n), (f, k, b, n))
  ZEPHLORE_HOOKED(int, setxattr, (const FileRef& f, const std::string& k, const void* v, size_t n, int fl),
                  (f, k, v, n, fl))
  ZEPHLORE_HOOKED(int, removexattr, (const FileRef& f, const std::string& k), (f, k))
  ZEPHLORE_HOOKED(std::optional<std::vector<std::string>>, listxattr, (const FileRef& f), (f))
  ZEPHLORE_HOOKED(ssize_t, xattrListSize, (const FileRef& f), (f))
  ZEPHLORE_HOOKED(std::optional<std::vector<FileUser>>, fileUsers, (dev_t d, ino_t i), (d, i))
  ZEPHLORE_HOOKED(std::optional<bool>, hasWriters, (int fd), (fd))
  ZEPHLORE_HOOKED(int, access, (const std::string& p, int m), (p, m))
  ZEPHLORE_HOOKED(std::optional<VolumeDescription>, describeVolume, (const std::string& p), (p))
#undef ZEPHLORE_HOOKED

 private:
  std::function<void(const char*)> hook_;
  Env& base_ = Env::system();
};

}  // namespace zephlore::testkit
