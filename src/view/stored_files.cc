#include "view/stored_files.h"

#include <sys/xattr.h>

#include <filesystem>
#include <system_error>

#include "platform/attribute_names.h"
#include "platform/env.h"

namespace zephlore::view {

CompressedFiles compressedFilesIn(const std::string& root, size_t enough) {
  namespace fs = std::filesystem;
  CompressedFiles found;
  std::error_code ec;
  const std::string decmpfs = std::string(kUserXattrPrefix) + attr::kDecmpfs;
  for (fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end;
       !ec && it != end && found.count < enough; it.increment(ec)) {
    const fs::directory_entry& entry = *it;
    if (entry.is_symlink(ec) || !entry.is_regular_file(ec) || entry.file_size(ec) != 0) continue;
    if (lgetxattr(entry.path().c_str(), decmpfs.c_str(), nullptr, 0) < 0) continue;
    if (found.count++ == 0) found.first = entry.path().string().substr(root.size() + 1);
  }
  return found;
}

}  // namespace zephlore::view
