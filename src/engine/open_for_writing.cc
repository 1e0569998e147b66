#include "engine/open_for_writing.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

namespace zephlore {
namespace {

// With an access control list the group bits are its mask: when they do
// not allow writing, no named user or group may write either.
bool othersMayWrite(const struct stat& st) { return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0; }

std::string folderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Empty when every process that could have the file open for writing is
// one of the caller's, which /proc shows: nobody else may write the file,
// and nobody else may put a file of theirs at its name.
std::string whyOthersCouldWrite(Env& env, const struct stat& st, const std::string& path) {
  const uid_t self = geteuid();
  if (st.st_uid != self) return "it belongs to another user";
  if (othersMayWrite(st)) return "others may write it";
  struct stat folder;
  if (env.stat(folderOf(path), &folder) != 0) return "its folder cannot be examined";
  if (folder.st_uid != self || othersMayWrite(folder)) return "others may write its folder";
  return {};
}

}  // namespace

WriterCheck checkWriters(Env& env, int fd, const struct stat& st, const std::string& path, bool writeLeased) {
  if (writeLeased) return {};
  errno = 0;
  const std::optional<bool> writers = env.hasWriters(fd);
  if (writers) return {*writers, {}};

  const std::string noLease = std::string("the file system grants no lease: ") + std::strerror(errno);
  if (std::string why = whyOthersCouldWrite(env, st, path); !why.empty()) return {true, noLease + ", and " + why};
  std::optional<std::vector<FileUser>> users = env.fileUsers(st.st_dev, st.st_ino);
  if (!users) return {true, noLease + ", and the process list cannot be read"};
  for (const FileUser& user : *users) {
    if (user.mode == kFileUserCurrentDirectory || (user.mode & O_ACCMODE) != O_RDONLY) {
      return {true, noLease + "; process " + std::to_string(user.pid) + " writes it"};
    }
  }
  return {};
}

}  // namespace zephlore
