#include "engine/open_for_writing.h"

#include <unistd.h>

#include <optional>
#include <vector>

#include "engine/file_usage.h"
#include "platform/env.h"

namespace zephlore {

bool isOpenForWritingByOtherProcesses(const struct stat& st) {
  std::optional<std::vector<FileUser>> users = QVFileUsage::usersOfFile(st);
  if (!users) return false;
  const pid_t self = getpid();
  for (const FileUser& user : *users) {
    if (user.pid == self) continue;
    if (user.mode == kFileUserCurrentDirectory || (user.mode & 3) != 0) return true;
  }
  return false;
}

bool isOpenForWritingByOtherProcesses(int readOnlyFd, const struct stat& st) {
  const std::optional<bool> writers = Env::shared().hasWriters(readOnlyFd);
  if (writers && !*writers) return false;
  return isOpenForWritingByOtherProcesses(st);
}

}  // namespace zephlore
