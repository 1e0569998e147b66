#include "engine/sibling_temp_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <set>

#include "base/log.h"

namespace zephlore {
namespace {

// FNV-1a, 64 bits: stable across runs and builds, unlike std::hash.
uint64_t stableHash(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  return hash;
}

std::string baseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Names of the copies this process works with: a clean-up in this process
// must not even open them (an open would break the lease held in a swap).
std::mutex& inUseMutex() {
  static std::mutex mutex;
  return mutex;
}
std::multiset<std::string>& namesInUse() {
  static std::multiset<std::string>* names = new std::multiset<std::string>;  // used until exit
  return *names;
}

}  // namespace

bool SiblingTempFile::isInUseHere(const std::string& name) {
  std::lock_guard lock(inUseMutex());
  return namesInUse().count(name) != 0;
}

std::string SiblingTempFile::nameFor(const std::string& path, Kind kind) {
  char name[40];
  snprintf(name, sizeof name, ".zephlore-%016" PRIx64 ".%c", stableHash(baseName(path)),
           static_cast<char>(kind));
  std::string dir = parentDirectory(path);
  return dir == "/" ? "/" + std::string(name) : dir + "/" + name;
}

bool SiblingTempFile::removeOwnLeftover(Env& env, const std::string& name) {
  if (isInUseHere(name)) {
    errno = EEXIST;
    return false;
  }
  return removeUnheld(env, name);
}

bool SiblingTempFile::removeUnheld(Env& env, const std::string& name) {
  struct stat st;
  if (env.lstat(name, &st) != 0) return false;
  if (!S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1) {
    errno = EEXIST;
    return false;
  }
  // A live run holds the lock of every copy it works with.
  UniqueFd unheld(env.openLocked(name, O_RDONLY | O_NONBLOCK));
  if (!unheld) {
    errno = EEXIST;
    return false;
  }
  struct stat opened;
  if (env.fstat(unheld.get(), &opened) != 0 || opened.st_ino != st.st_ino) {
    errno = EEXIST;
    return false;
  }
  return env.unlink(name) == 0;
}

bool SiblingTempFile::isHeld(Env& env, const std::string& name) {
  if (isInUseHere(name)) return true;
  UniqueFd unheld(env.openLocked(name, O_RDONLY | O_NONBLOCK));
  return !unheld && errno == EWOULDBLOCK;
}

SiblingTempFile::SiblingTempFile(Env& env, std::string targetPath, Kind kind)
    : env_(env), target_(std::move(targetPath)), name_(nameFor(target_, kind)) {
  std::lock_guard lock(inUseMutex());
  namesInUse().insert(name_);
}

SiblingTempFile::~SiblingTempFile() {
  if (named_) unlinkName();
  std::lock_guard lock(inUseMutex());
  namesInUse().erase(namesInUse().find(name_));
}

bool SiblingTempFile::create(mode_t mode) {
  int fd = env_.openTmpFile(parentDirectory(target_), mode);
  if (fd == -1 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
    // No unnamed files here: create the copy at its name at once.
    fd = env_.open(name_, O_RDWR | O_CREAT | O_EXCL, mode);
    if (fd == -1 && errno == EEXIST && removeUnheld(env_, name_)) {
      fd = env_.open(name_, O_RDWR | O_CREAT | O_EXCL, mode);
    }
    if (fd != -1) named_ = true;
  }
  if (fd == -1) return false;
  fd_.reset(fd);
  // Exactly `mode`, whatever the umask or a default ACL of the folder would
  // give: the copy is its owner's alone until it takes the file's access.
  if (env_.fchmod(fd, mode) != 0) return false;
  // Tells the next run's clean-up that this copy is in use.
  env_.lockDescriptor(fd);
  return true;
}

bool SiblingTempFile::link() {
  if (named_) return true;
  int result = env_.linkTmpFile(fd_.get(), name_);
  if (result != 0 && errno == EEXIST) {
    if (!removeUnheld(env_, name_)) {
      if (errno == ENOENT) errno = EEXIST;  // it vanished meanwhile: someone else is at work
      return false;
    }
    result = env_.linkTmpFile(fd_.get(), name_);
  }
  if (result != 0) return false;
  named_ = true;
  return true;
}

bool SiblingTempFile::linkAt(const std::string& path) {
  // A hard link never replaces what appeared at `path` meanwhile.
  if (env_.linkTmpFile(fd_.get(), path) != 0) return false;
  if (named_) unlinkName();
  return true;
}

bool SiblingTempFile::unlinkName() {
  if (!named_) return true;
  named_ = false;
  // Another user who may write the folder can exchange names under us, so
  // the name may hold any file of theirs by now: only the caller's own
  // file, with no other name, is ever removed.
  struct stat st;
  if (env_.lstat(name_, &st) != 0) {
    // Nothing to look at is no sign of anyone else: the name goes as before.
    return errno != ENOENT && env_.unlink(name_) == 0;
  }
  if (!S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1) {
    KRLog("**** Left %s alone: it holds a file that is not this user's own", name_.c_str());
    errno = EEXIST;
    return false;
  }
  return env_.unlink(name_) == 0;
}

}  // namespace zephlore
