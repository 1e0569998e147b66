// Paths that reach a file through a process's open descriptor. Such a path
// works where another mount now covers the file's own name, and for a
// directory it works as a folder (`descriptorPath(fd) + "/name"`).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zephlore {

// The path of this process's descriptor `fd`.
std::string descriptorPath(int fd);

// The path of descriptor `fd` of process `pid`.
std::string descriptorPathOf(pid_t pid, int fd);

// A path made by descriptorPathOf, taken apart.
struct DescriptorPathParts {
  pid_t pid = 0;
  int fd = -1;
  std::string rest;  // what follows the descriptor ("" or "/...")
};
// The parts of `path` when it reaches a file through another or this
// process's descriptor by its number; none otherwise.
std::optional<DescriptorPathParts> splitDescriptorPath(const std::string& path);

// `text` (a message) with every descriptor path of `shown` replaced by the
// path the user knows it as. A descriptor path matches only whole: the one
// of descriptor 3 is not replaced inside the one of descriptor 31.
std::string withDescriptorPathsShown(const std::string& text,
                                     const std::vector<std::pair<std::string, std::string>>& shown);

}  // namespace zephlore
