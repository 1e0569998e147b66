#include "cli/files/named_path.h"

#include <sys/stat.h>

#include <optional>

#include "platform/env.h"

namespace zephlore::cli {

std::string followNamedLink(Env& env, const std::string& path) {
  struct stat st;
  if (env.lstat(path, &st) != 0 || !S_ISLNK(st.st_mode)) return path;
  if (env.stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return path;
  std::optional<std::string> target = env.realPath(path);
  return target ? *target : path;
}

}  // namespace zephlore::cli
