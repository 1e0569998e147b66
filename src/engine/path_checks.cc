#include "engine/path_checks.h"

#include <climits>

#include "engine/hfs_refusal_codes.h"
#include "engine/sibling_temp_file.h"
#include "base/utf8.h"

namespace zephlore {

bool checkPathForRewrite(const std::string& path, Error* error) {
  if (path.find('\n') != std::string::npos) {
    return fail(error, kHFSErrorDomain, kHFSErrorLineFeedInPath, "Path " + path + " contains a line feed");
  }
  if (!isValidUTF8(path)) {
    return fail(error, kHFSErrorDomain, kHFSErrorPathNotUTF8, "Path " + path + " is not valid UTF-8");
  }
  bool tooLong = path.size() >= PATH_MAX ||
                 SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kCompressedCopy).size() >= PATH_MAX;
  for (size_t start = 0; !tooLong && start < path.size();) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    tooLong = end - start > NAME_MAX;
    start = end + 1;
  }
  if (tooLong) return fail(error, kHFSErrorDomain, kHFSErrorPathTooLong, "Path " + path + " is too long");
  return true;
}

}  // namespace zephlore
