#include "platform/fault_env.h"

#include <unistd.h>

#include <climits>

namespace zephlore {
namespace {

// The name a descriptor was opened under, for matching faults by file.
std::string descriptorPath(int fd) {
  char buf[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = ::readlink(link.c_str(), buf, sizeof buf);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

}  // namespace

FaultInjectingEnv::FaultInjectingEnv(Env* base) : base_(base) {}

void FaultInjectingEnv::inject(Fault fault) {
  std::lock_guard lock(mutex_);
  faults_.push_back(Armed{std::move(fault), 0});
}

void FaultInjectingEnv::beforeCall(const std::string& op, std::function<void(const std::string&)> hook) {
  std::lock_guard lock(mutex_);
  hooks_[op] = std::move(hook);
}

void FaultInjectingEnv::clear() {
  std::lock_guard lock(mutex_);
  faults_.clear();
  hooks_.clear();
  calls_.clear();
  fired_ = 0;
}

int FaultInjectingEnv::calls(const std::string& op) const {
  std::lock_guard lock(mutex_);
  auto it = calls_.find(op);
  return it == calls_.end() ? 0 : it->second;
}

int FaultInjectingEnv::fired() const {
  std::lock_guard lock(mutex_);
  return fired_;
}

FaultInjectingEnv::Outcome FaultInjectingEnv::decide(const char* op,
                                                     std::vector<std::string> subjects, int fd) {
  std::function<void(const std::string&)> hook;
  {
    std::lock_guard lock(mutex_);
    auto it = hooks_.find(op);
    if (it != hooks_.end()) hook = it->second;
  }
  if (hook) hook(subjects.empty() ? std::string() : subjects.front());
  std::lock_guard lock(mutex_);
  ++calls_[op];
  bool fdResolved = false;
  for (Armed& armed : faults_) {
    const Fault& fault = armed.fault;
    if (fault.op != op) continue;
    if (!fault.match.empty()) {
      if (fd >= 0 && !fdResolved) {
        subjects.push_back(descriptorPath(fd));
        fdResolved = true;
      }
      bool matched = false;
      for (const std::string& subject : subjects) {
        matched = matched || subject.find(fault.match) != std::string::npos;
      }
      if (!matched) continue;
    }
    ++armed.seen;
    const bool due = armed.seen >= fault.nth &&
                     (fault.times == 0 || armed.seen < fault.nth + fault.times);
    if (!due) continue;
    ++fired_;
    if (fault.shortTransfer) return Outcome::kShort;
    errno = fault.error;
    return Outcome::kFail;
  }
  return Outcome::kPass;
}

FaultInjectingEnv::Outcome FaultInjectingEnv::decideFor(const char* op, const FileRef& file,
                                                        const std::string& name) {
  return decide(op, {file.path, name}, file.fd);
}

#define ZEPHLORE_FAULT_OR(outcome, failure) \
  if ((outcome) == Outcome::kFail) return failure

int FaultInjectingEnv::open(const std::string& path, int flags, mode_t mode) {
  ZEPHLORE_FAULT_OR(decide("open", {path}), -1);
  return base_->open(path, flags, mode);
}

int FaultInjectingEnv::openLocked(const std::string& path, int flags, mode_t mode) {
  ZEPHLORE_FAULT_OR(decide("openLocked", {path}), -1);
  return base_->openLocked(path, flags, mode);
}

int FaultInjectingEnv::openTmpFile(const std::string& dir, mode_t mode) {
  ZEPHLORE_FAULT_OR(decide("openTmpFile", {dir}), -1);
  return base_->openTmpFile(dir, mode);
}

int FaultInjectingEnv::linkTmpFile(int fd, const std::string& path) {
  ZEPHLORE_FAULT_OR(decide("linkTmpFile", {path}, fd), -1);
  return base_->linkTmpFile(fd, path);
}

int FaultInjectingEnv::close(int fd) {
  // The descriptor is closed even when the close is made to report failure,
  // as the system does.
  Outcome outcome = decide("close", {}, fd);
  int saved = errno;
  int rc = base_->close(fd);
  if (outcome == Outcome::kFail) {
    errno = saved;
    return -1;
  }
  return rc;
}

ssize_t FaultInjectingEnv::pread(int fd, void* buf, size_t n, uint64_t offset) {
  Outcome outcome = decide("pread", {}, fd);
  ZEPHLORE_FAULT_OR(outcome, -1);
  if (outcome == Outcome::kShort && n > 1) n /= 2;
  return base_->pread(fd, buf, n, offset);
}

ssize_t FaultInjectingEnv::pwrite(int fd, const void* buf, size_t n, uint64_t offset) {
  Outcome outcome = decide("pwrite", {}, fd);
  ZEPHLORE_FAULT_OR(outcome, -1);
  if (outcome == Outcome::kShort) n /= 2;  // 0 for one byte: the writer must notice
  return base_->pwrite(fd, buf, n, offset);
}

int FaultInjectingEnv::fsync(int fd) {
  ZEPHLORE_FAULT_OR(decide("fsync", {}, fd), -1);
  return base_->fsync(fd);
}

int FaultInjectingEnv::ftruncate(int fd, uint64_t length) {
  ZEPHLORE_FAULT_OR(decide("ftruncate", {}, fd), -1);
  return base_->ftruncate(fd, length);
}

int FaultInjectingEnv::fstat(int fd, struct stat* st) {
  ZEPHLORE_FAULT_OR(decide("fstat", {}, fd), -1);
  return base_->fstat(fd, st);
}

int FaultInjectingEnv::fstatfs(int fd, struct statfs* st) {
  ZEPHLORE_FAULT_OR(decide("fstatfs", {}, fd), -1);
  return base_->fstatfs(fd, st);
}

int FaultInjectingEnv::fchmod(int fd, mode_t mode) {
  ZEPHLORE_FAULT_OR(decide("fchmod", {}, fd), -1);
  return base_->fchmod(fd, mode);
}

int FaultInjectingEnv::fchown(int fd, uid_t uid, gid_t gid) {
  ZEPHLORE_FAULT_OR(decide("fchown", {}, fd), -1);
  return base_->fchown(fd, uid, gid);
}

int FaultInjectingEnv::futimens(int fd, const struct timespec times[2]) {
  ZEPHLORE_FAULT_OR(decide("futimens", {}, fd), -1);
  return base_->futimens(fd, times);
}

std::optional<std::vector<uint8_t>> FaultInjectingEnv::getAcl(int fd) {
  ZEPHLORE_FAULT_OR(decide("getAcl", {}, fd), std::nullopt);
  return base_->getAcl(fd);
}

int FaultInjectingEnv::setAcl(int fd, const std::vector<uint8_t>& acl) {
  ZEPHLORE_FAULT_OR(decide("setAcl", {}, fd), -1);
  return base_->setAcl(fd, acl);
}

int FaultInjectingEnv::lstat(const std::string& path, struct stat* st) {
  ZEPHLORE_FAULT_OR(decide("lstat", {path}), -1);
  return base_->lstat(path, st);
}

int FaultInjectingEnv::stat(const std::string& path, struct stat* st) {
  ZEPHLORE_FAULT_OR(decide("stat", {path}), -1);
  return base_->stat(path, st);
}

int FaultInjectingEnv::statfs(const std::string& path, struct statfs* st) {
  ZEPHLORE_FAULT_OR(decide("statfs", {path}), -1);
  return base_->statfs(path, st);
}

int FaultInjectingEnv::statvfs(const std::string& path, struct statvfs* st) {
  ZEPHLORE_FAULT_OR(decide("statvfs", {path}), -1);
  return base_->statvfs(path, st);
}

int FaultInjectingEnv::rename(const std::string& from, const std::string& to) {
  ZEPHLORE_FAULT_OR(decide("rename", {from, to}), -1);
  return base_->rename(from, to);
}

int FaultInjectingEnv::exchange(const std::string& a, const std::string& b) {
  ZEPHLORE_FAULT_OR(decide("exchange", {a, b}), -1);
  return base_->exchange(a, b);
}

int FaultInjectingEnv::unlink(const std::string& path) {
  ZEPHLORE_FAULT_OR(decide("unlink", {path}), -1);
  return base_->unlink(path);
}

int FaultInjectingEnv::mkdir(const std::string& path, mode_t mode) {
  ZEPHLORE_FAULT_OR(decide("mkdir", {path}), -1);
  return base_->mkdir(path, mode);
}

int FaultInjectingEnv::fsyncDirectory(const std::string& path) {
  ZEPHLORE_FAULT_OR(decide("fsyncDirectory", {path}), -1);
  return base_->fsyncDirectory(path);
}

std::optional<std::string> FaultInjectingEnv::realPath(const std::string& path) {
  ZEPHLORE_FAULT_OR(decide("realPath", {path}), std::nullopt);
  return base_->realPath(path);
}

ssize_t FaultInjectingEnv::getxattr(const FileRef& file, const std::string& name, void* buf,
                                    size_t n) {
  ZEPHLORE_FAULT_OR(decideFor("getxattr", file, name), -1);
  return base_->getxattr(file, name, buf, n);
}

int FaultInjectingEnv::setxattr(const FileRef& file, const std::string& name, const void* value,
                                size_t n, int flags) {
  ZEPHLORE_FAULT_OR(decideFor("setxattr", file, name), -1);
  return base_->setxattr(file, name, value, n, flags);
}

int FaultInjectingEnv::removexattr(const FileRef& file, const std::string& name) {
  ZEPHLORE_FAULT_OR(decideFor("removexattr", file, name), -1);
  return base_->removexattr(file, name);
}

std::optional<std::vector<std::string>> FaultInjectingEnv::listxattr(const FileRef& file) {
  ZEPHLORE_FAULT_OR(decideFor("listxattr", file, ""), std::nullopt);
  return base_->listxattr(file);
}

ssize_t FaultInjectingEnv::xattrListSize(const FileRef& file) {
  ZEPHLORE_FAULT_OR(decideFor("xattrListSize", file, ""), -1);
  return base_->xattrListSize(file);
}

std::optional<std::vector<FileUser>> FaultInjectingEnv::fileUsers(dev_t device, ino_t inode) {
  ZEPHLORE_FAULT_OR(decide("fileUsers", {}), std::nullopt);
  return base_->fileUsers(device, inode);
}

std::optional<bool> FaultInjectingEnv::hasWriters(int fd) {
  ZEPHLORE_FAULT_OR(decide("hasWriters", {}), std::nullopt);
  return base_->hasWriters(fd);
}

int FaultInjectingEnv::takeWriteLease(int fd) {
  ZEPHLORE_FAULT_OR(decide("takeWriteLease", {}, fd), -1);
  return base_->takeWriteLease(fd);
}

bool FaultInjectingEnv::writeLeaseHeld(int fd) {
  ZEPHLORE_FAULT_OR(decide("writeLeaseHeld", {}, fd), false);
  return base_->writeLeaseHeld(fd);
}

int FaultInjectingEnv::releaseLease(int fd) {
  ZEPHLORE_FAULT_OR(decide("releaseLease", {}, fd), -1);
  return base_->releaseLease(fd);
}

int FaultInjectingEnv::lockDescriptor(int fd) {
  ZEPHLORE_FAULT_OR(decide("lockDescriptor", {}, fd), -1);
  return base_->lockDescriptor(fd);
}

std::optional<std::vector<std::string>> FaultInjectingEnv::listDirectory(const std::string& path) {
  ZEPHLORE_FAULT_OR(decide("listDirectory", {path}), std::nullopt);
  return base_->listDirectory(path);
}

int FaultInjectingEnv::access(const std::string& path, int mode) {
  ZEPHLORE_FAULT_OR(decide("access", {path}), -1);
  return base_->access(path, mode);
}

std::optional<VolumeDescription> FaultInjectingEnv::describeVolume(const std::string& path) {
  ZEPHLORE_FAULT_OR(decide("describeVolume", {path}), std::nullopt);
  return base_->describeVolume(path);
}

#undef ZEPHLORE_FAULT_OR

}  // namespace zephlore
