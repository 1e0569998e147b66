// Env: every operating-system call the engine makes goes through one
// interface, so that tests can make any of them fail on demand
// (FaultInjectingEnv) and the engine above reads like plain file logic.
//
// Conventions:
// - A failing call returns -1 (or false / none) and leaves errno set, exactly
//   as the system call would; callers turn errno into messages themselves.
// - Paths are byte strings. A final symbolic link is never followed by open()
//   and the attribute calls unless the caller asks for it.
// - Extended attributes are named with the system's own names
//   ("com.apple.decmpfs"); they live in the Linux "user." namespace, and
//   listing returns only those, with the prefix removed.
#pragma once

#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace zephlore {

// Linux namespace that holds the system's attributes.
inline constexpr const char* kUserXattrPrefix = "user.";
// The kernel refuses to list a file's attributes once their names (with
// namespace prefixes and terminating zeros) pass this many bytes.
inline constexpr size_t kXattrListMax = 65536;

// The target of an attribute call: an open descriptor, or a path whose final
// symbolic link is followed only when `traverseLink` is set. A descriptor is
// the safe choice when the name could be swapped between two calls.
struct FileRef {
  int fd = -1;
  std::string path;
  bool traverseLink = false;

  static FileRef descriptor(int fd) { return FileRef{fd, {}, false}; }
  static FileRef atPath(std::string path, bool traverseLink = false) {
    return FileRef{-1, std::move(path), traverseLink};
  }
  bool isDescriptor() const { return fd >= 0; }
  // The path, or "descriptor N", for messages.
  std::string describe() const;
};

// One process using a file: its descriptor's access mode (O_RDONLY 0,
// O_WRONLY 1, O_RDWR 2) or kFileUserCurrentDirectory.
struct FileUser {
  pid_t pid = 0;
  uint32_t mode = 0;
};
inline constexpr uint32_t kFileUserCurrentDirectory = 0xFFFF;

// What the system can tell about the volume holding a path.
struct VolumeDescription {
  dev_t device = 0;
  std::string fileSystemType;  // "ext4", "xfs", "btrfs", "tmpfs", ..., "Unknown"
  std::string mountPoint;      // "" when the mount table has no entry
  bool removable = false;      // the disk says its medium can be removed
  bool ejectable = false;      // removable, or on an external bus
  bool internal = false;       // a real disk on an internal bus
  bool external = false;       // a real disk on an external bus (USB, ...)
  bool writable = false;       // not mounted read-only
};

class Env {
 public:
  virtual ~Env() = default;

  // The real system. It keeps no state: each main hands it (or an Env over
  // it) to the parts it makes.
  static Env& system();

  // --- Descriptors ---------------------------------------------------------

  // open(2) with O_CLOEXEC and O_NOFOLLOW always added: a final symbolic link
  // fails with ELOOP. Returns the descriptor or -1.
  virtual int open(const std::string& path, int flags, mode_t mode = 0) = 0;
  // open() followed by flock(LOCK_EX | LOCK_NB): a lock held elsewhere (by
  // another process, or through another open of the same file in this one)
  // fails at once with EWOULDBLOCK, and the descriptor is closed again.
  virtual int openLocked(const std::string& path, int flags, mode_t mode = 0) = 0;
  // A new unnamed read-write file in directory `dir` (O_TMPFILE): it vanishes
  // with its last descriptor unless linkTmpFile() names it. EOPNOTSUPP where
  // the file system cannot.
  virtual int openTmpFile(const std::string& dir, mode_t mode) = 0;
  // Gives a file from openTmpFile() the name `path`; EEXIST if the name is
  // taken (never replaces anything).
  virtual int linkTmpFile(int fd, const std::string& path) = 0;
  virtual int close(int fd) = 0;

  virtual ssize_t pread(int fd, void* buf, size_t n, uint64_t offset) = 0;
  virtual ssize_t pwrite(int fd, const void* buf, size_t n, uint64_t offset) = 0;
  virtual int fsync(int fd) = 0;
  virtual int ftruncate(int fd, uint64_t length) = 0;
  virtual int fstat(int fd, struct stat* st) = 0;
  virtual int fstatfs(int fd, struct statfs* st) = 0;

  virtual int fchmod(int fd, mode_t mode) = 0;
  virtual int fchown(int fd, uid_t uid, gid_t gid) = 0;
  // times[0] access, times[1] modification, nanoseconds kept.
  virtual int futimens(int fd, const struct timespec times[2]) = 0;

  // The POSIX access ACL of a file in a portable external form; an empty
  // value when it says nothing beyond the mode bits or the file system has
  // no ACLs. None (errno set) on failure.
  virtual std::optional<std::vector<uint8_t>> getAcl(int fd) = 0;
  // Sets an ACL from getAcl(); an empty value reduces the file's ACL to its
  // mode bits (dropping one inherited from a directory default).
  virtual int setAcl(int fd, const std::vector<uint8_t>& acl) = 0;

  // --- Paths -----------------------------------------------------------------

  virtual int lstat(const std::string& path, struct stat* st) = 0;
  virtual int stat(const std::string& path, struct stat* st) = 0;  // follows links
  virtual int statfs(const std::string& path, struct statfs* st) = 0;
  virtual int statvfs(const std::string& path, struct statvfs* st) = 0;
  virtual int rename(const std::string& from, const std::string& to) = 0;
  // Atomically swaps the two names (renameat2 RENAME_EXCHANGE); both must
  // exist on one volume. EINVAL where the file system cannot.
  virtual int exchange(const std::string& a, const std::string& b) = 0;
  virtual int unlink(const std::string& path) = 0;
  virtual int mkdir(const std::string& path, mode_t mode) = 0;
  // Flushes a directory's entries (after a create, rename or exchange in it).
  virtual int fsyncDirectory(const std::string& path) = 0;
  // The names in a directory, without "." and "..". None (errno set) on failure.
  virtual std::optional<std::vector<std::string>> listDirectory(const std::string& path) = 0;
  // realpath(3); none (errno set) on failure.
  virtual std::optional<std::string> realPath(const std::string& path) = 0;
  // fstatat(2): `name` relative to the open directory `dir_fd`, or a path
  // when `dir_fd` is AT_FDCWD; `flags` as fstatat's (AT_SYMLINK_NOFOLLOW).
  virtual int fstatAt(int dir_fd, const std::string& name, struct stat* st, int flags) = 0;
  // openat(2) with O_CLOEXEC and O_NOFOLLOW always added, like open().
  virtual int openAt(int dir_fd, const std::string& name, int flags, mode_t mode = 0) = 0;
  // The next names of the directory open as `fd` (O_DIRECTORY), without "."
  // and ".."; empty once it has been read to its end. A walk holds a batch,
  // never a whole large directory. None (errno set) on failure.
  virtual std::optional<std::vector<std::string>> readDirectory(int fd) = 0;
  // access() for `name` relative to `dir_fd` (AT_FDCWD: a path).
  virtual int accessAt(int dir_fd, const std::string& name, int mode) = 0;
  // statx(2), for what stat does not tell (the birth time).
  virtual int statxAt(int dir_fd, const std::string& name, int flags, unsigned mask, struct statx* out) = 0;

  // --- Extended attributes, by the system's names ---------------------------

  // Size query when `n` is 0 (buf may be null); else reads the value.
  // ENODATA when absent, ERANGE when `n` is too small.
  virtual ssize_t getxattr(const FileRef& file, const std::string& name, void* buf,
                           size_t n) = 0;
  // flags: 0 (create or replace), XATTR_CREATE or XATTR_REPLACE.
  virtual int setxattr(const FileRef& file, const std::string& name, const void* value,
                       size_t n, int flags) = 0;
  virtual int removexattr(const FileRef& file, const std::string& name) = 0;
  // The names in the order the file system lists them. E2BIG when the full
  // list passes kXattrListMax.
  virtual std::optional<std::vector<std::string>> listxattr(const FileRef& file) = 0;
  // Bytes of the file's whole attribute name list, every namespace included:
  // what kXattrListMax limits.
  virtual ssize_t xattrListSize(const FileRef& file) = 0;

  // --- Processes and volumes -------------------------------------------------

  // Processes this process may inspect that have the file (device, inode)
  // open or as their current directory: one entry per process, the current
  // directory first, else the first matching descriptor. Processes of other
  // users that cannot be read are left out. None (errno set) when /proc
  // cannot be read at all.
  virtual std::optional<std::vector<FileUser>> fileUsers(dev_t device, ino_t inode) = 0;
  // Whether any descriptor anywhere, this process's included, has the file
  // behind the read-only descriptor `fd` open for writing: one call instead
  // of a walk through every process. None (errno set) when the file system
  // or the file's owner does not let this process ask.
  virtual std::optional<bool> hasWriters(int fd) = 0;
  // A write lease on the file behind `fd` (which must be its only open
  // descriptor anywhere): from then on anybody opening the file waits until
  // the lease is let go, and the lease shows the break. -1 with errno
  // (EAGAIN: somebody has it open; EACCES, EINVAL: not offered here).
  virtual int takeWriteLease(int fd) = 0;
  // True while the write lease on `fd` is unbroken: nobody tried to open the
  // file since it was taken.
  virtual bool writeLeaseHeld(int fd) = 0;
  // Lets the lease go; a waiting opener goes on.
  virtual int releaseLease(int fd) = 0;
  // flock(LOCK_EX | LOCK_NB) on an open descriptor: held until it is closed.
  virtual int lockDescriptor(int fd) = 0;
  // access(2) for `path` with the effective ids, not following a final
  // symbolic link: 0 or -1 with errno (EACCES, EROFS, ETXTBSY for a running
  // program asked for W_OK).
  virtual int access(const std::string& path, int mode) = 0;
  // The volume holding `path` (following links). None (errno set) when the
  // path cannot be examined.
  virtual std::optional<VolumeDescription> describeVolume(const std::string& path) = 0;

  // --- Descriptors and names beneath an open directory, as the system has them
  //
  // Thin calls with the system's own arguments and results (the view passes
  // them straight through). Names are relative to `dir_fd`; they are not
  // mapped by PathMappingEnv, so AT_FDCWD and absolute paths are not for these.

  // fcntl(F_DUPFD_CLOEXEC).
  virtual int duplicate(int fd) = 0;
  virtual int fdatasync(int fd) = 0;
  virtual int fstatvfs(int fd, struct statvfs* st) = 0;
  virtual off_t lseek(int fd, off_t offset, int whence) = 0;
  // flock(2) with the caller's operation (LOCK_SH, LOCK_EX, LOCK_UN, LOCK_NB).
  virtual int flock(int fd, int operation) = 0;
  virtual int fallocate(int fd, int mode, off_t offset, off_t length) = 0;
  // splice(2) of up to `n` bytes of the file `fd` from *offset (moved on)
  // into the pipe `pipe_fd`.
  virtual ssize_t spliceToPipe(int fd, loff_t* offset, int pipe_fd, size_t n, unsigned flags) = 0;
  // getdents64(2): the next records of the directory open as `fd`, from the
  // descriptor's position (lseek() moves it to a record's d_off); 0 at the end.
  virtual ssize_t readDirectoryRecords(int fd, void* buf, size_t n) = 0;
  virtual ssize_t readLinkAt(int dir_fd, const char* name, char* buf, size_t n) = 0;
  virtual int mkdirAt(int dir_fd, const char* name, mode_t mode) = 0;
  // mknodat(2); a FIFO too (S_IFIFO in `mode`).
  virtual int mknodAt(int dir_fd, const char* name, mode_t mode, dev_t device) = 0;
  virtual int symlinkAt(const char* target, int dir_fd, const char* name) = 0;
  // unlinkat(2); AT_REMOVEDIR for a directory.
  virtual int unlinkAt(int dir_fd, const char* name, int flags) = 0;
  // renameat2(2) (RENAME_NOREPLACE, RENAME_EXCHANGE).
  virtual int renameAt(int from_dir_fd, const char* from, int to_dir_fd, const char* to,
                       unsigned flags) = 0;
  virtual int linkAt(int from_dir_fd, const char* from, int to_dir_fd, const char* to, int flags) = 0;
  // fchmodat(2), which always follows a final symbolic link.
  virtual int chmodAt(int dir_fd, const char* name, mode_t mode) = 0;
  virtual int chownAt(int dir_fd, const char* name, uid_t uid, gid_t gid, int flags) = 0;
  virtual int utimensAt(int dir_fd, const char* name, const struct timespec times[2], int flags) = 0;
  // Extended attributes of any namespace, by their full names ("user.tag",
  // "security.selinux"), of `name` beneath `dir_fd` ("." the directory
  // itself); a final symbolic link is not followed. As l*xattr(2).
  virtual ssize_t getxattrAt(int dir_fd, const char* name, const char* attribute, void* buf,
                             size_t n) = 0;
  virtual int setxattrAt(int dir_fd, const char* name, const char* attribute, const void* value,
                         size_t n, int flags) = 0;
  // The full names, each ending in a zero byte; the size needed when `n` is 0.
  virtual ssize_t listxattrAt(int dir_fd, const char* name, char* list, size_t n) = 0;
  virtual int removexattrAt(int dir_fd, const char* name, const char* attribute) = 0;

  // --- Conveniences built on the calls above ---------------------------------

  // Reads up to `n` bytes at `offset`, retrying short reads. Returns the bytes
  // read (fewer only at end of file) or -1.
  ssize_t preadFully(int fd, void* buf, size_t n, uint64_t offset);
  // Writes all `n` bytes at `offset`. False with errno set (EIO when the
  // system stopped writing without saying why).
  bool pwriteFully(int fd, const void* buf, size_t n, uint64_t offset);
  // A whole attribute value (size query, then read; retried if it grew).
  std::optional<std::vector<uint8_t>> getxattrValue(const FileRef& file, const std::string& name);
  // fsync of the directory that holds `path`.
  int fsyncParentDirectory(const std::string& path);
};

// The directory part of a path ("." when there is none, "/" for "/x").
std::string parentDirectory(const std::string& path);

}  // namespace zephlore
