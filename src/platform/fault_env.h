// FaultInjectingEnv: forwards every call to another Env and makes chosen
// calls fail, so that tests can walk every failure path of the engine.
//
//   FaultInjectingEnv env;
//   env.inject({.op = "setxattr", .error = ENOSPC, .nth = 2, .match = "decmpfs"});
//   ScopedSharedEnv use(&env);
//
// Operation names are the Env method names ("open", "openLocked", "pwrite",
// "exchange", "setxattr", "fileUsers", ...). A fault fires on the nth call of
// its operation counted from its injection, among the calls that match:
// `match`, when not empty, must occur in the call's path, attribute name or
// (for a descriptor) the name the descriptor was opened under.
#pragma once

#include <cerrno>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore {

class FaultInjectingEnv final : public Env {
 public:
  struct Fault {
    std::string op;
    int error = EIO;     // errno of the failing call
    int nth = 1;         // 1: the next matching call
    int times = 1;       // consecutive matching calls that fail; 0: all from the nth on
    std::string match;   // substring of path, attribute name or descriptor's file
    // pread/pwrite only: instead of failing, move half the bytes (at least
    // one fewer than asked), as a full disk or a signal can.
    bool shortTransfer = false;
  };

  // Wraps the real system unless told otherwise; `base` must outlive this.
  explicit FaultInjectingEnv(Env* base = &Env::system());

  void inject(Fault fault);
  void failOn(const std::string& op, int error, int nth = 1) {
    inject(Fault{op, error, nth, 1, {}, false});
  }
  // Runs `hook` (with the call's first path, if any) just before every call
  // of `op` goes on: a test does its own work there, in the middle of the
  // engine's (another process opening the file just before a swap).
  void beforeCall(const std::string& op, std::function<void(const std::string& path)> hook);
  void clear();  // drops every fault, hook and count
  // Calls of `op` so far (all of them, matching or not), and faults fired.
  int calls(const std::string& op) const;
  int fired() const;

  int open(const std::string& path, int flags, mode_t mode = 0) override;
  int openLocked(const std::string& path, int flags, mode_t mode = 0) override;
  int openTmpFile(const std::string& dir, mode_t mode) override;
  int linkTmpFile(int fd, const std::string& path) override;
  int close(int fd) override;
  ssize_t pread(int fd, void* buf, size_t n, uint64_t offset) override;
  ssize_t pwrite(int fd, const void* buf, size_t n, uint64_t offset) override;
  int fsync(int fd) override;
  int ftruncate(int fd, uint64_t length) override;
  int fstat(int fd, struct stat* st) override;
  int fstatfs(int fd, struct statfs* st) override;
  int fchmod(int fd, mode_t mode) override;
  int fchown(int fd, uid_t uid, gid_t gid) override;
  int futimens(int fd, const struct timespec times[2]) override;
  std::optional<std::vector<uint8_t>> getAcl(int fd) override;
  int setAcl(int fd, const std::vector<uint8_t>& acl) override;
  int lstat(const std::string& path, struct stat* st) override;
  int stat(const std::string& path, struct stat* st) override;
  int statfs(const std::string& path, struct statfs* st) override;
  int statvfs(const std::string& path, struct statvfs* st) override;
  int rename(const std::string& from, const std::string& to) override;
  int exchange(const std::string& a, const std::string& b) override;
  int unlink(const std::string& path) override;
  int mkdir(const std::string& path, mode_t mode) override;
  int fsyncDirectory(const std::string& path) override;
  std::optional<std::string> realPath(const std::string& path) override;
  ssize_t getxattr(const FileRef& file, const std::string& name, void* buf, size_t n) override;
  int setxattr(const FileRef& file, const std::string& name, const void* value, size_t n,
               int flags) override;
  int removexattr(const FileRef& file, const std::string& name) override;
  std::optional<std::vector<std::string>> listxattr(const FileRef& file) override;
  ssize_t xattrListSize(const FileRef& file) override;
  std::optional<std::vector<FileUser>> fileUsers(dev_t device, ino_t inode) override;
  std::optional<bool> hasWriters(int fd) override;
  int takeWriteLease(int fd) override;
  bool writeLeaseHeld(int fd) override;
  int releaseLease(int fd) override;
  int lockDescriptor(int fd) override;
  std::optional<std::vector<std::string>> listDirectory(const std::string& path) override;
  int access(const std::string& path, int mode) override;
  std::optional<VolumeDescription> describeVolume(const std::string& path) override;

 private:
  struct Armed {
    Fault fault;
    int seen = 0;
  };
  enum class Outcome { kPass, kFail, kShort };

  // Counts the call and decides its fate; on kFail errno is already set.
  Outcome decide(const char* op, std::vector<std::string> subjects, int fd = -1);
  Outcome decideFor(const char* op, const FileRef& file, const std::string& name);

  Env* base_;
  mutable std::mutex mutex_;
  std::vector<Armed> faults_;
  std::map<std::string, int> calls_;
  std::map<std::string, std::function<void(const std::string&)>> hooks_;
  int fired_ = 0;
};

}  // namespace zephlore
