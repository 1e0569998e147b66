#include "engine/file_usage.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace zephlore {

std::optional<std::vector<FileUser>> QVFileUsage::usersOfFile(Env& env, const std::string& path) {
  struct stat st;
  if (env.lstat(path, &st) != 0) {
    fprintf(stderr, "File %s does not exist.\n", path.c_str());
    return std::nullopt;
  }
  return usersOfFile(env, st);
}

std::optional<std::vector<FileUser>> QVFileUsage::usersOfFile(Env& env, const struct stat& st) {
  auto users = env.fileUsers(st.st_dev, st.st_ino);
  if (!users) fprintf(stderr, "Could not read process list.\n");
  return users;
}

bool QVFileUsage::isFileOpen(Env& env, const std::string& path) {
  return isFileOpenExcludingOwnProcess(env, path, false);
}

bool QVFileUsage::isFileOpenExcludingOwnProcess(Env& env, const std::string& path, bool excludeOwn) {
  auto users = usersOfFile(env, path);
  if (!users || users->empty()) return false;
  size_t count = users->size();
  if (excludeOwn) {
    for (const FileUser& user : *users) {
      if (user.pid == getpid()) return count - 1 > 0;
    }
  }
  return true;
}

bool QVFileUsage::isFileOpenForWriting(Env& env, const std::string& path, bool* forWriting) {
  return isFileOpenForWritingExcludingOwnProcess(env, path, forWriting, false);
}

bool QVFileUsage::isFileOpenForWritingExcludingOwnProcess(Env& env, const std::string& path,
                                                          bool* forWriting, bool excludeOwn) {
  if (forWriting) *forWriting = false;
  auto users = usersOfFile(env, path);
  if (!users || users->empty()) return false;
  const pid_t self = getpid();
  for (const FileUser& user : *users) {
    if (excludeOwn && user.pid == self) continue;
    if (user.mode == kFileUserCurrentDirectory || (user.mode & O_ACCMODE) != O_RDONLY) {
      if (forWriting) *forWriting = true;
      return true;
    }
  }
  // Open, if only for reading (or only by this process).
  return true;
}

}  // namespace zephlore
