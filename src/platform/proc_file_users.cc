#include "platform/proc_file_users.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/unique_fd.h"

namespace zephlore {
namespace {

// A directory stream that closes itself.
struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;

// A stream over the folder `dirfd` on a descriptor of its own, so that
// `dirfd` stays usable for openat(); none (errno set) on failure.
DirStream listFolder(const UniqueFd& dirfd) {
  UniqueFd copy(::dup(dirfd.get()));
  if (!copy) return nullptr;
  DirStream dir(::fdopendir(copy.get()));
  if (dir) copy.release();  // the stream owns it now
  return dir;
}

bool parseNumber(const char* text, long* out) {
  if (*text < '0' || *text > '9') return false;
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0') return false;
  *out = value;
  return true;
}

// The fdinfo text is a few short lines; one read is enough.
std::string readSmallFileAt(int dirfd, const std::string& name) {
  UniqueFd fd(::openat(dirfd, name.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return "";
  char buf[1024];
  ssize_t got = ::read(fd.get(), buf, sizeof buf - 1);
  return got > 0 ? std::string(buf, static_cast<size_t>(got)) : "";
}

bool sameFile(const struct stat& st, dev_t device, ino_t inode) {
  return st.st_dev == device && st.st_ino == inode;
}

// The access mode with which process directory `pidfd` holds the file: a
// writable descriptor wins over read-only ones, so that a process that opened
// the file for reading first and for writing later still counts as a writer.
// None when it does not hold the file or cannot be read.
std::optional<uint32_t> openModeInProcess(int pidfd, dev_t device, ino_t inode) {
  UniqueFd fdDir(::openat(pidfd, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fdDir) return std::nullopt;
  DirStream dir = listFolder(fdDir);
  if (!dir) return std::nullopt;
  std::optional<uint32_t> mode;
  while (struct dirent* entry = ::readdir(dir.get())) {
    long number;
    if (!parseNumber(entry->d_name, &number)) continue;
    // stat through the magic link reaches the open file itself, also when
    // its name was unlinked or renamed since.
    struct stat st;
    if (::fstatat(fdDir.get(), entry->d_name, &st, 0) != 0 || !sameFile(st, device, inode)) continue;
    UniqueFd infoDir(::openat(pidfd, "fdinfo", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::optional<uint32_t> flags;
    if (infoDir) flags = parseFdInfoFlags(readSmallFileAt(infoDir.get(), entry->d_name));
    // A descriptor closed between the two looks still counted as open; read
    // it as read-only then.
    const uint32_t thisMode = flags ? (*flags & O_ACCMODE) : 0;
    if (!mode || *mode == O_RDONLY) mode = thisMode;
    if (thisMode != O_RDONLY) break;
  }
  return mode;
}

}  // namespace

std::optional<uint32_t> parseFdInfoFlags(const std::string& text) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    if (line.rfind("flags:", 0) == 0) {
      const char* digits = line.c_str() + 6;
      while (*digits == ' ' || *digits == '\t') ++digits;
      char* stop = nullptr;
      errno = 0;
      unsigned long value = std::strtoul(digits, &stop, 8);
      if (stop == digits || errno != 0) return std::nullopt;
      return static_cast<uint32_t>(value);
    }
    pos = end + 1;
  }
  return std::nullopt;
}

std::optional<std::vector<FileUser>> scanProcForFileUsers(dev_t device, ino_t inode) {
  UniqueFd procFd(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!procFd) return std::nullopt;
  DirStream proc = listFolder(procFd);
  if (!proc) return std::nullopt;
  std::vector<FileUser> users;
  while (struct dirent* entry = ::readdir(proc.get())) {
    long pid;
    if (!parseNumber(entry->d_name, &pid)) continue;
    UniqueFd pidfd(::openat(procFd.get(), entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!pidfd) continue;  // gone meanwhile
    struct stat cwd;
    if (::fstatat(pidfd.get(), "cwd", &cwd, 0) == 0 && sameFile(cwd, device, inode)) {
      users.push_back(FileUser{static_cast<pid_t>(pid), kFileUserCurrentDirectory});
    } else if (std::optional<uint32_t> mode = openModeInProcess(pidfd.get(), device, inode)) {
      users.push_back(FileUser{static_cast<pid_t>(pid), *mode});
    }
  }
  return users;
}

}  // namespace zephlore
