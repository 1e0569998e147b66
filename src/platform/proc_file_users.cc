#include "platform/proc_file_users.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace zephlore {
namespace {

// A directory stream that closes itself.
struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

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
  int fd = ::openat(dirfd, name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  char buf[1024];
  ssize_t got = ::read(fd, buf, sizeof buf - 1);
  ::close(fd);
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
  int fdDir = ::openat(pidfd, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fdDir < 0) return std::nullopt;
  int listFd = ::dup(fdDir);
  std::unique_ptr<DIR, DirCloser> dir(listFd >= 0 ? ::fdopendir(listFd) : nullptr);
  if (!dir) {
    if (listFd >= 0) ::close(listFd);
    ::close(fdDir);
    return std::nullopt;
  }
  std::optional<uint32_t> mode;
  while (struct dirent* entry = ::readdir(dir.get())) {
    long number;
    if (!parseNumber(entry->d_name, &number)) continue;
    // stat through the magic link reaches the open file itself, also when
    // its name was unlinked or renamed since.
    struct stat st;
    if (::fstatat(fdDir, entry->d_name, &st, 0) != 0 || !sameFile(st, device, inode)) continue;
    int infoDir = ::openat(pidfd, "fdinfo", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    std::optional<uint32_t> flags;
    if (infoDir >= 0) {
      flags = parseFdInfoFlags(readSmallFileAt(infoDir, entry->d_name));
      ::close(infoDir);
    }
    // A descriptor closed between the two looks still counted as open; read
    // it as read-only then.
    const uint32_t thisMode = flags ? (*flags & O_ACCMODE) : 0;
    if (!mode || *mode == O_RDONLY) mode = thisMode;
    if (thisMode != O_RDONLY) break;
  }
  ::close(fdDir);
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
  int procFd = ::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (procFd < 0) return std::nullopt;
  int listFd = ::dup(procFd);
  std::unique_ptr<DIR, DirCloser> proc(listFd >= 0 ? ::fdopendir(listFd) : nullptr);
  if (!proc) {
    int saved = errno;
    if (listFd >= 0) ::close(listFd);
    ::close(procFd);
    errno = saved;
    return std::nullopt;
  }
  std::vector<FileUser> users;
  while (struct dirent* entry = ::readdir(proc.get())) {
    long pid;
    if (!parseNumber(entry->d_name, &pid)) continue;
    int pidfd = ::openat(procFd, entry->d_name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (pidfd < 0) continue;  // gone meanwhile
    struct stat cwd;
    if (::fstatat(pidfd, "cwd", &cwd, 0) == 0 && sameFile(cwd, device, inode)) {
      users.push_back(FileUser{static_cast<pid_t>(pid), kFileUserCurrentDirectory});
    } else if (std::optional<uint32_t> mode = openModeInProcess(pidfd, device, inode)) {
      users.push_back(FileUser{static_cast<pid_t>(pid), *mode});
    }
    ::close(pidfd);
  }
  ::close(procFd);
  return users;
}

}  // namespace zephlore
