// QVFileUsage: which processes have a file open, or as their current
// directory, found through /proc. Processes of other users cannot be read
// and are not counted.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore {

class QVFileUsage {
 public:
  QVFileUsage() = delete;

  // One entry per process: its descriptor's open mode (0 read-only, 1
  // write-only, 2 read-write) or kFileUserCurrentDirectory. None when the
  // path does not exist ("File %s does not exist." on standard error) or
  // the process list cannot be read.
  static std::optional<std::vector<FileUser>> usersOfFile(Env& env, const std::string& path);
  // The same for the file an open descriptor refers to (its fstat).
  static std::optional<std::vector<FileUser>> usersOfFile(Env& env, const struct stat& st);

  static bool isFileOpen(Env& env, const std::string& path);
  // Some process has it open; with `excludeOwn`, some process besides this one.
  static bool isFileOpenExcludingOwnProcess(Env& env, const std::string& path, bool excludeOwn);
  static bool isFileOpenForWriting(Env& env, const std::string& path, bool* forWriting);
  // Some process has the file open. *forWriting (may be null) tells whether
  // a process (other than this one, with `excludeOwn`) has it open for
  // writing or as its current directory.
  static bool isFileOpenForWritingExcludingOwnProcess(Env& env, const std::string& path, bool* forWriting,
                                                      bool excludeOwn);
};

}  // namespace zephlore
