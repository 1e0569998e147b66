// LinuxEnv: the real system behind Env.
#include <acl/libacl.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/acl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/env.h"
#include "platform/proc_file_users.h"
#include "platform/volume_description.h"

namespace zephlore {
namespace {

// Keeps errno across clean-up calls that may change it.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }

 private:
  int saved_;
};

bool validName(const std::string& name) {
  return !name.empty() && name.find('\0') == std::string::npos;
}

std::string systemName(const std::string& name) { return kUserXattrPrefix + name; }

ssize_t rawList(const FileRef& file, char* buf, size_t n) {
  if (file.isDescriptor()) return ::flistxattr(file.fd, buf, n);
  return file.traverseLink ? ::listxattr(file.path.c_str(), buf, n)
                           : ::llistxattr(file.path.c_str(), buf, n);
}

class LinuxEnv final : public Env {
 public:
  int open(const std::string& path, int flags, mode_t mode) override {
    int fd;
    do {
      fd = ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
  }

  int openLocked(const std::string& path, int flags, mode_t mode) override {
    int fd = open(path, flags, mode);
    if (fd < 0) return -1;
    int rc;
    do {
      rc = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
      ErrnoKeeper keep;
      ::close(fd);
      return -1;
    }
    return fd;
  }

  int openTmpFile(const std::string& dir, mode_t mode) override {
    return ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mode);
  }

  int linkTmpFile(int fd, const std::string& path) override {
    // Linking by descriptor (AT_EMPTY_PATH) needs a capability; the /proc
    // link of the descriptor does not.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
  }

  int close(int fd) override { return ::close(fd); }

  ssize_t pread(int fd, void* buf, size_t n, uint64_t offset) override {
    return ::pread(fd, buf, n, static_cast<off_t>(offset));
  }
  ssize_t pwrite(int fd, const void* buf, size_t n, uint64_t offset) override {
    return ::pwrite(fd, buf, n, static_cast<off_t>(offset));
  }
  int fsync(int fd) override { return ::fsync(fd); }
  int ftruncate(int fd, uint64_t length) override {
    return ::ftruncate(fd, static_cast<off_t>(length));
  }
  int fstat(int fd, struct stat* st) override { return ::fstat(fd, st); }
  int fstatfs(int fd, struct statfs* st) override { return ::fstatfs(fd, st); }
  int fchmod(int fd, mode_t mode) override { return ::fchmod(fd, mode); }
  int fchown(int fd, uid_t uid, gid_t gid) override { return ::fchown(fd, uid, gid); }
  int futimens(int fd, const struct timespec times[2]) override { return ::futimens(fd, times); }

  std::optional<std::vector<uint8_t>> getAcl(int fd) override {
    acl_t acl = ::acl_get_fd(fd);
    if (!acl) {
      if (errno == ENOTSUP || errno == EOPNOTSUPP) return std::vector<uint8_t>{};
      return std::nullopt;
    }
    std::optional<std::vector<uint8_t>> result;
    if (::acl_equiv_mode(acl, nullptr) == 0) {
      result.emplace();  // nothing beyond the mode bits
    } else {
      ssize_t size = ::acl_size(acl);
      if (size > 0) {
        std::vector<uint8_t> bytes(static_cast<size_t>(size));
        if (::acl_copy_ext(bytes.data(), acl, size) >= 0) result = std::move(bytes);
      }
    }
    ErrnoKeeper keep;
    ::acl_free(acl);
    return result;
  }

  int setAcl(int fd, const std::vector<uint8_t>& bytes) override {
    acl_t acl;
    if (bytes.empty()) {
      struct stat st;
      if (::fstat(fd, &st) != 0) return -1;
      acl = ::acl_from_mode(st.st_mode);
    } else {
      acl = ::acl_copy_int(bytes.data());
    }
    if (!acl) return -1;
    int rc = ::acl_set_fd(fd, acl);
    if (rc != 0 && bytes.empty() && (errno == ENOTSUP || errno == EOPNOTSUPP)) {
      rc = 0;  // no ACLs here: the mode bits are all there is
    }
    ErrnoKeeper keep;
    ::acl_free(acl);
    return rc;
  }

  int lstat(const std::string& path, struct stat* st) override {
    return ::lstat(path.c_str(), st);
  }
  int stat(const std::string& path, struct stat* st) override { return ::stat(path.c_str(), st); }
  int statfs(const std::string& path, struct statfs* st) override {
    return ::statfs(path.c_str(), st);
  }
  int statvfs(const std::string& path, struct statvfs* st) override {
    return ::statvfs(path.c_str(), st);
  }
  int rename(const std::string& from, const std::string& to) override {
    return ::rename(from.c_str(), to.c_str());
  }
  int exchange(const std::string& a, const std::string& b) override {
    return ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
  }
  int unlink(const std::string& path) override { return ::unlink(path.c_str()); }
  int mkdir(const std::string& path, mode_t mode) override {
    return ::mkdir(path.c_str(), mode);
  }

  int fsyncDirectory(const std::string& path) override {
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    int rc = ::fsync(fd);
    ErrnoKeeper keep;
    ::close(fd);
    return rc;
  }

  std::optional<std::string> realPath(const std::string& path) override {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (!resolved) return std::nullopt;
    std::string result(resolved);
    std::free(resolved);
    return result;
  }

  int fstatAt(int dir_fd, const std::string& name, struct stat* st, int flags) override {
    return ::fstatat(dir_fd, name.c_str(), st, flags);
  }

  int openAt(int dir_fd, const std::string& name, int flags, mode_t mode) override {
    int fd;
    do {
      fd = ::openat(dir_fd, name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
  }

  int accessAt(int dir_fd, const std::string& name, int mode) override {
    return ::faccessat(dir_fd, name.c_str(), mode, AT_EACCESS | AT_SYMLINK_NOFOLLOW);
  }

  int statxAt(int dir_fd, const std::string& name, int flags, unsigned mask, struct statx* out) override {
    return ::statx(dir_fd, name.c_str(), flags, mask, out);
  }

  std::optional<std::vector<std::string>> readDirectory(int fd) override {
    // getdents64 reads on from the descriptor's own position, so a walk
    // keeps no directory stream of libc's beside it.
    alignas(8) char buffer[32 * 1024];
    std::vector<std::string> names;
    while (names.empty()) {
      const long got = ::syscall(SYS_getdents64, fd, buffer, sizeof buffer);
      if (got < 0) {
        if (errno == EINTR) continue;
        return std::nullopt;
      }
      if (got == 0) break;
      for (long at = 0; at < got;) {
        struct Dirent64 {
          ino64_t ino;
          off64_t off;
          unsigned short reclen;
          unsigned char type;
          char name[1];
        };
        const char* record = buffer + at;
        const std::string_view name(record + offsetof(Dirent64, name));
        const auto* entry = reinterpret_cast<const Dirent64*>(record);
        if (name != "." && name != "..") names.emplace_back(name);
        at += entry->reclen;
      }
    }
    return names;
  }

  ssize_t getxattr(const FileRef& file, const std::string& name, void* buf, size_t n) override {
    if (!validName(name)) return (errno = EINVAL), -1;
    const std::string full = systemName(name);
    if (file.isDescriptor()) return ::fgetxattr(file.fd, full.c_str(), buf, n);
    return file.traverseLink ? ::getxattr(file.path.c_str(), full.c_str(), buf, n)
                             : ::lgetxattr(file.path.c_str(), full.c_str(), buf, n);
  }

  int setxattr(const FileRef& file, const std::string& name, const void* value, size_t n,
               int flags) override {
    if (!validName(name)) return (errno = EINVAL), -1;
    const std::string full = systemName(name);
    if (file.isDescriptor()) return ::fsetxattr(file.fd, full.c_str(), value, n, flags);
    return file.traverseLink ? ::setxattr(file.path.c_str(), full.c_str(), value, n, flags)
                             : ::lsetxattr(file.path.c_str(), full.c_str(), value, n, flags);
  }

  int removexattr(const FileRef& file, const std::string& name) override {
    if (!validName(name)) return (errno = EINVAL), -1;
    const std::string full = systemName(name);
    if (file.isDescriptor()) return ::fremovexattr(file.fd, full.c_str());
    return file.traverseLink ? ::removexattr(file.path.c_str(), full.c_str())
                             : ::lremovexattr(file.path.c_str(), full.c_str());
  }

  std::optional<std::vector<std::string>> listxattr(const FileRef& file) override {
    std::vector<char> buf;
    for (int attempt = 0;; ++attempt) {
      ssize_t size = rawList(file, nullptr, 0);
      if (size < 0) return std::nullopt;
      buf.resize(static_cast<size_t>(size));
      ssize_t got = size == 0 ? 0 : rawList(file, buf.data(), buf.size());
      if (got >= 0) {
        buf.resize(static_cast<size_t>(got));
        break;
      }
      if (errno != ERANGE || attempt == 3) return std::nullopt;  // grew meanwhile: again
    }
    std::vector<std::string> names;
    const size_t prefix = std::strlen(kUserXattrPrefix);
    for (size_t pos = 0; pos < buf.size();) {
      const char* name = buf.data() + pos;
      size_t len = strnlen(name, buf.size() - pos);
      if (len > prefix && std::strncmp(name, kUserXattrPrefix, prefix) == 0) {
        names.emplace_back(name + prefix, len - prefix);
      }
      pos += len + 1;
    }
    return names;
  }

  ssize_t xattrListSize(const FileRef& file) override { return rawList(file, nullptr, 0); }

  std::optional<std::vector<FileUser>> fileUsers(dev_t device, ino_t inode) override {
    return scanProcForFileUsers(device, inode);
  }

  std::optional<VolumeDescription> describeVolume(const std::string& path) override {
    return describeVolumeOfPath(path);
  }

  // The kernel grants a read lease only while nobody has the file open for
  // writing. It is let go at once; should a writer open the file in between,
  // the kernel signals the lease holder, so the signal is set to SIGURG,
  // which is ignored unless a program asks for it (the default, SIGIO, would
  // end the process).
  std::optional<bool> hasWriters(int fd) override {
    if (::fcntl(fd, F_SETSIG, SIGURG) != 0) return std::nullopt;
    if (::fcntl(fd, F_SETLEASE, F_RDLCK) == 0) {
      ::fcntl(fd, F_SETLEASE, F_UNLCK);
      return false;
    }
    if (errno == EAGAIN || errno == EBUSY) return true;
    return std::nullopt;
  }

  // Breaking a lease signals its holder; SIGURG is ignored unless a program
  // asks for it (the default, SIGIO, would end the process). The break is
  // read back with F_GETLEASE instead.
  int takeWriteLease(int fd) override {
    if (::fcntl(fd, F_SETSIG, SIGURG) != 0) return -1;
    return ::fcntl(fd, F_SETLEASE, F_WRLCK);
  }

  bool writeLeaseHeld(int fd) override { return ::fcntl(fd, F_GETLEASE) == F_WRLCK; }

  int releaseLease(int fd) override { return ::fcntl(fd, F_SETLEASE, F_UNLCK); }

  int lockDescriptor(int fd) override {
    int rc;
    do {
      rc = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    return rc;
  }

  std::optional<std::vector<std::string>> listDirectory(const std::string& path) override {
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return std::nullopt;
    std::vector<std::string> names;
    errno = 0;
    while (struct dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(std::move(name));
    }
    const int err = errno;
    ::closedir(dir);
    if (err != 0) {
      errno = err;
      return std::nullopt;
    }
    return names;
  }

  int access(const std::string& path, int mode) override {
    return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS | AT_SYMLINK_NOFOLLOW);
  }

  int duplicate(int fd) override { return ::fcntl(fd, F_DUPFD_CLOEXEC, 0); }
  int fdatasync(int fd) override { return ::fdatasync(fd); }
  int fstatvfs(int fd, struct statvfs* st) override { return ::fstatvfs(fd, st); }
  off_t lseek(int fd, off_t offset, int whence) override { return ::lseek(fd, offset, whence); }
  int flock(int fd, int operation) override { return ::flock(fd, operation); }
  int fallocate(int fd, int mode, off_t offset, off_t length) override {
    return ::fallocate(fd, mode, offset, length);
  }
  ssize_t spliceToPipe(int fd, loff_t* offset, int pipe_fd, size_t n, unsigned flags) override {
    return ::splice(fd, offset, pipe_fd, nullptr, n, flags);
  }
  ssize_t readDirectoryRecords(int fd, void* buf, size_t n) override {
    return ::syscall(SYS_getdents64, fd, buf, n);
  }
  ssize_t readLinkAt(int dir_fd, const char* name, char* buf, size_t n) override {
    return ::readlinkat(dir_fd, name, buf, n);
  }
  int mkdirAt(int dir_fd, const char* name, mode_t mode) override {
    return ::mkdirat(dir_fd, name, mode);
  }
  int mknodAt(int dir_fd, const char* name, mode_t mode, dev_t device) override {
    return ::mknodat(dir_fd, name, mode, device);
  }
  int symlinkAt(const char* target, int dir_fd, const char* name) override {
    return ::symlinkat(target, dir_fd, name);
  }
  int unlinkAt(int dir_fd, const char* name, int flags) override {
    return ::unlinkat(dir_fd, name, flags);
  }
  int renameAt(int from_dir_fd, const char* from, int to_dir_fd, const char* to,
               unsigned flags) override {
    return ::renameat2(from_dir_fd, from, to_dir_fd, to, flags);
  }
  int linkAt(int from_dir_fd, const char* from, int to_dir_fd, const char* to, int flags) override {
    return ::linkat(from_dir_fd, from, to_dir_fd, to, flags);
  }
  int chmodAt(int dir_fd, const char* name, mode_t mode) override {
    return ::fchmodat(dir_fd, name, mode, 0);
  }
  int chownAt(int dir_fd, const char* name, uid_t uid, gid_t gid, int flags) override {
    return ::fchownat(dir_fd, name, uid, gid, flags);
  }
  int utimensAt(int dir_fd, const char* name, const struct timespec times[2], int flags) override {
    return ::utimensat(dir_fd, name, times, flags);
  }

  // The attribute calls have no form relative to a descriptor before Linux
  // 6.13; the descriptor's /proc link reaches the directory instead.
  ssize_t getxattrAt(int dir_fd, const char* name, const char* attribute, void* buf,
                     size_t n) override {
    return ::lgetxattr(beneath(dir_fd, name).c_str(), attribute, buf, n);
  }
  int setxattrAt(int dir_fd, const char* name, const char* attribute, const void* value,
                 size_t n, int flags) override {
    return ::lsetxattr(beneath(dir_fd, name).c_str(), attribute, value, n, flags);
  }
  ssize_t listxattrAt(int dir_fd, const char* name, char* list, size_t n) override {
    return ::llistxattr(beneath(dir_fd, name).c_str(), list, n);
  }
  int removexattrAt(int dir_fd, const char* name, const char* attribute) override {
    return ::lremovexattr(beneath(dir_fd, name).c_str(), attribute);
  }

 private:
  static std::string beneath(int dir_fd, const char* name) {
    return "/proc/self/fd/" + std::to_string(dir_fd) + "/" + name;
  }
};

}  // namespace

Env& Env::system() {
  static LinuxEnv* env = new LinuxEnv;  // never destroyed: used until exit
  return *env;
}

}  // namespace zephlore
