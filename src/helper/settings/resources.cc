#include "helper/settings/resources.h"

#include <vector>

#include "platform/programs.h"

namespace zephlore {
namespace {

// A program of this build tree reads the resources of its checkout; any other
// copy (installed, or copied elsewhere) never points into a checkout.
std::vector<std::string> resourceFolders() {
  const std::string exe_folder = thisProgramFolder();
  const std::string build_folder = ZEPHLORE_BUILD_DIR;
  std::vector<std::string> folders;
  if (!exe_folder.empty() && (exe_folder == build_folder || exe_folder.starts_with(build_folder + "/"))) {
    folders.push_back(ZEPHLORE_RESOURCE_DIR);
  }
  if (!exe_folder.empty()) folders.push_back(exe_folder + "/../share/zephlore");
  folders.push_back(ZEPHLORE_INSTALLED_RESOURCE_DIR);
  return folders;
}

}  // namespace

std::string resourcePath(const std::string& name) {
  static const std::vector<std::string> folders = resourceFolders();
  return findReadableFile(folders, name);
}

}  // namespace zephlore
