// Every operation of Env, listed once. The wrapper, the fault-injecting Env
// and the test hooks are generated from this list, so a new operation cannot
// escape them: the compiler refuses an Env whose list lacks one of its pure
// virtual operations.
//
// X(result, name, (parameters), (arguments), (fault subjects), kind)
//   fault subjects: the paths or names a fault's `match` is tried against,
//                   and the descriptor whose file name is tried too (-1: none)
//   kind:           plain, or custom when FaultInjectingEnv writes its own
//                   version (close, and the short transfers of pread/pwrite)
#pragma once

#define ZEPHLORE_ENV_OPERATIONS(X)                                                               \
  X(int, open, (const std::string& path, int flags, mode_t mode), (path, flags, mode),          \
    ({path}, -1), plain)                                                                         \
  X(int, openLocked, (const std::string& path, int flags, mode_t mode), (path, flags, mode),    \
    ({path}, -1), plain)                                                                         \
  X(int, openTmpFile, (const std::string& dir, mode_t mode), (dir, mode), ({dir}, -1), plain)    \
  X(int, linkTmpFile, (int fd, const std::string& path), (fd, path), ({path}, fd), plain)        \
  X(int, close, (int fd), (fd), ({}, fd), custom)                                                \
  X(ssize_t, pread, (int fd, void* buf, size_t n, uint64_t offset), (fd, buf, n, offset),       \
    ({}, fd), custom)                                                                            \
  X(ssize_t, pwrite, (int fd, const void* buf, size_t n, uint64_t offset),                      \
    (fd, buf, n, offset), ({}, fd), custom)                                                      \
  X(int, fsync, (int fd), (fd), ({}, fd), plain)                                                 \
  X(int, ftruncate, (int fd, uint64_t length), (fd, length), ({}, fd), plain)                    \
  X(int, fstat, (int fd, struct stat* st), (fd, st), ({}, fd), plain)                            \
  X(int, fstatfs, (int fd, struct statfs* st), (fd, st), ({}, fd), plain)                        \
  X(int, fchmod, (int fd, mode_t mode), (fd, mode), ({}, fd), plain)                             \
  X(int, fchown, (int fd, uid_t uid, gid_t gid), (fd, uid, gid), ({}, fd), plain)                \
  X(int, futimens, (int fd, const struct timespec times[2]), (fd, times), ({}, fd), plain)       \
  X(std::optional<std::vector<uint8_t>>, getAcl, (int fd), (fd), ({}, fd), plain)                \
  X(int, setAcl, (int fd, const std::vector<uint8_t>& acl), (fd, acl), ({}, fd), plain)          \
  X(int, lstat, (const std::string& path, struct stat* st), (path, st), ({path}, -1), plain)     \
  X(int, stat, (const std::string& path, struct stat* st), (path, st), ({path}, -1), plain)      \
  X(int, statfs, (const std::string& path, struct statfs* st), (path, st), ({path}, -1), plain)  \
  X(int, statvfs, (const std::string& path, struct statvfs* st), (path, st), ({path}, -1),       \
    plain)                                                                                       \
  X(int, rename, (const std::string& from, const std::string& to), (from, to), ({from, to}, -1), \
    plain)                                                                                       \
  X(int, exchange, (const std::string& a, const std::string& b), (a, b), ({a, b}, -1), plain)    \
  X(int, unlink, (const std::string& path), (path), ({path}, -1), plain)                         \
  X(int, mkdir, (const std::string& path, mode_t mode), (path, mode), ({path}, -1), plain)       \
  X(int, fsyncDirectory, (const std::string& path), (path), ({path}, -1), plain)                 \
  X(std::optional<std::string>, realPath, (const std::string& path), (path), ({path}, -1),       \
    plain)                                                                                       \
  X(int, fstatAt, (int dir_fd, const std::string& name, struct stat* st, int flags),          \
    (dir_fd, name, st, flags), ({name}, dir_fd), plain)                                          \
  X(int, openAt, (int dir_fd, const std::string& name, int flags, mode_t mode),                 \
    (dir_fd, name, flags, mode), ({name}, dir_fd), plain)                                        \
  X(std::optional<std::vector<std::string>>, readDirectory, (int fd), (fd), ({}, fd), plain)     \
  X(int, accessAt, (int dir_fd, const std::string& name, int mode), (dir_fd, name, mode),       \
    ({name}, dir_fd), plain)                                                                     \
  X(int, statxAt, (int dir_fd, const std::string& name, int flags, unsigned mask,               \
                   struct statx* out),                                                           \
    (dir_fd, name, flags, mask, out), ({name}, dir_fd), plain)                                   \
  X(ssize_t, getxattr, (const FileRef& file, const std::string& name, void* buf, size_t n),     \
    (file, name, buf, n), ({file.path, name}, file.fd), plain)                                   \
  X(int, setxattr,                                                                               \
    (const FileRef& file, const std::string& name, const void* value, size_t n, int flags),     \
    (file, name, value, n, flags), ({file.path, name}, file.fd), plain)                          \
  X(int, removexattr, (const FileRef& file, const std::string& name), (file, name),             \
    ({file.path, name}, file.fd), plain)                                                         \
  X(std::optional<std::vector<std::string>>, listxattr, (const FileRef& file), (file),          \
    ({file.path}, file.fd), plain)                                                               \
  X(ssize_t, xattrListSize, (const FileRef& file), (file), ({file.path}, file.fd), plain)        \
  X(std::optional<std::vector<FileUser>>, fileUsers, (dev_t device, ino_t inode),               \
    (device, inode), ({}, -1), plain)                                                            \
  X(std::optional<bool>, hasWriters, (int fd), (fd), ({}, -1), plain)                            \
  X(int, takeWriteLease, (int fd), (fd), ({}, fd), plain)                                        \
  X(bool, writeLeaseHeld, (int fd), (fd), ({}, fd), plain)                                       \
  X(int, releaseLease, (int fd), (fd), ({}, fd), plain)                                          \
  X(int, lockDescriptor, (int fd), (fd), ({}, fd), plain)                                        \
  X(std::optional<std::vector<std::string>>, listDirectory, (const std::string& path), (path),  \
    ({path}, -1), plain)                                                                         \
  X(int, access, (const std::string& path, int mode), (path, mode), ({path}, -1), plain)         \
  X(std::optional<VolumeDescription>, describeVolume, (const std::string& path), (path),        \
    ({path}, -1), plain)                                                                           \
  X(int, duplicate, (int fd), (fd), ({}, fd), plain)                                             \
  X(int, fdatasync, (int fd), (fd), ({}, fd), plain)                                             \
  X(int, fstatvfs, (int fd, struct statvfs* st), (fd, st), ({}, fd), plain)                      \
  X(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), ({}, fd), plain)     \
  X(int, flock, (int fd, int operation), (fd, operation), ({}, fd), plain)                       \
  X(int, fallocate, (int fd, int mode, off_t offset, off_t length), (fd, mode, offset, length),  \
    ({}, fd), plain)                                                                             \
  X(ssize_t, spliceToPipe, (int fd, loff_t* offset, int pipe_fd, size_t n, unsigned flags),     \
    (fd, offset, pipe_fd, n, flags), ({}, fd), plain)                                            \
  X(ssize_t, readDirectoryRecords, (int fd, void* buf, size_t n), (fd, buf, n), ({}, fd), plain) \
  X(ssize_t, readLinkAt, (int dir_fd, const char* name, char* buf, size_t n),                   \
    (dir_fd, name, buf, n), ({name}, dir_fd), plain)                                             \
  X(int, mkdirAt, (int dir_fd, const char* name, mode_t mode), (dir_fd, name, mode),            \
    ({name}, dir_fd), plain)                                                                     \
  X(int, mknodAt, (int dir_fd, const char* name, mode_t mode, dev_t device),                    \
    (dir_fd, name, mode, device), ({name}, dir_fd), plain)                                       \
  X(int, symlinkAt, (const char* target, int dir_fd, const char* name), (target, dir_fd, name),  \
    ({name}, dir_fd), plain)                                                                     \
  X(int, unlinkAt, (int dir_fd, const char* name, int flags), (dir_fd, name, flags),            \
    ({name}, dir_fd), plain)                                                                     \
  X(int, renameAt,                                                                               \
    (int from_dir_fd, const char* from, int to_dir_fd, const char* to, unsigned flags),         \
    (from_dir_fd, from, to_dir_fd, to, flags), ({from, to}, from_dir_fd), plain)                 \
  X(int, linkAt, (int from_dir_fd, const char* from, int to_dir_fd, const char* to, int flags), \
    (from_dir_fd, from, to_dir_fd, to, flags), ({from, to}, from_dir_fd), plain)                 \
  X(int, chmodAt, (int dir_fd, const char* name, mode_t mode), (dir_fd, name, mode),            \
    ({name}, dir_fd), plain)                                                                     \
  X(int, chownAt, (int dir_fd, const char* name, uid_t uid, gid_t gid, int flags),              \
    (dir_fd, name, uid, gid, flags), ({name}, dir_fd), plain)                                    \
  X(int, utimensAt, (int dir_fd, const char* name, const struct timespec times[2], int flags),  \
    (dir_fd, name, times, flags), ({name}, dir_fd), plain)                                       \
  X(ssize_t, getxattrAt,                                                                         \
    (int dir_fd, const char* name, const char* attribute, void* buf, size_t n),                 \
    (dir_fd, name, attribute, buf, n), ({name, attribute}, dir_fd), plain)                       \
  X(int, setxattrAt,                                                                             \
    (int dir_fd, const char* name, const char* attribute, const void* value, size_t n,          \
     int flags),                                                                                 \
    (dir_fd, name, attribute, value, n, flags), ({name, attribute}, dir_fd), plain)              \
  X(ssize_t, listxattrAt, (int dir_fd, const char* name, char* list, size_t n),                 \
    (dir_fd, name, list, n), ({name}, dir_fd), plain)                                            \
  X(int, removexattrAt, (int dir_fd, const char* name, const char* attribute),                  \
    (dir_fd, name, attribute), ({name, attribute}, dir_fd), plain)

// Expands a parenthesized list: ZEPHLORE_ENV_UNPACK (a, b) is a, b.
#define ZEPHLORE_ENV_UNPACK(...) __VA_ARGS__

namespace zephlore {

// The operations' names, as FaultInjectingEnv and the hooks know them.
#define ZEPHLORE_ENV_OPERATION_NAME(result, name, ...) #name,
inline constexpr const char* kEnvOperationNames[] = {
    ZEPHLORE_ENV_OPERATIONS(ZEPHLORE_ENV_OPERATION_NAME)};
#undef ZEPHLORE_ENV_OPERATION_NAME

}  // namespace zephlore
