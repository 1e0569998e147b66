#include "helper/settings/resources.h"

#include <unistd.h>

#include <climits>
#include <vector>

namespace zephlore {
namespace {

std::string ownExecutableFolder() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "";
  std::string path(self, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/'));
}

// A program of this build tree reads the resources of its checkout; any other
// copy (installed, or copied elsewhere) never points into a checkout.
std::vector<std::string> resourceFolders() {
  const std::string exe_folder = ownExecutableFolder();
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
  for (const std::string& folder : folders) {
    std::string path = folder + "/" + name;
    if (access(path.c_str(), R_OK) == 0) return path;
  }
  return "";
}

}  // namespace zephlore
