#include "engine/path_string.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "base/utf8.h"
#include "platform/env.h"
#include "platform/platform_error.h"

namespace zephlore {

std::string QVPathString::stringWithFileSystemRepresentation(const char* path, size_t length) {
  if (!path) return "";
  return std::string(path, strnlen(path, length));
}

std::string QVPathString::stringByCanonicalizingPath(Env& env, const std::string& path) {
  return env.realPath(path).value_or(path);
}

bool QVPathString::isDirectory(Env& env, const std::string& path) {
  struct stat st;
  return env.stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool QVPathString::isUsablePath(const std::string& path, Error* error) {
  auto refuse = [&](int err, const char* why) {
    return fail(error, kPlatformErrorDomain, err, "Cannot work on the path: it " + std::string(why));
  };
  if (path.empty()) return refuse(ENOENT, "is empty");
  if (path.find('\0') != std::string::npos) return refuse(EINVAL, "contains a zero byte");
  if (path.find('\n') != std::string::npos) return refuse(EINVAL, "contains a line feed");
  if (!isValidUTF8(path)) return refuse(EILSEQ, "is not valid UTF-8");
  if (path.size() >= PATH_MAX) return refuse(ENAMETOOLONG, "is longer than the system allows");
  for (size_t start = 0; start < path.size();) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end - start > NAME_MAX) return refuse(ENAMETOOLONG, "has a name longer than the system allows");
    start = end + 1;
  }
  return true;
}

}  // namespace zephlore
