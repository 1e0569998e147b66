#include "engine/path_string.h"

#include <sys/stat.h>

#include "platform/env.h"

namespace zephlore {

std::string QVPathString::stringByCanonicalizingPath(Env& env, const std::string& path) {
  return env.realPath(path).value_or(path);
}

bool QVPathString::isDirectory(Env& env, const std::string& path) {
  struct stat st;
  return env.stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace zephlore
