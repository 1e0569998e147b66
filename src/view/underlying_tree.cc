#include "view/underlying_tree.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "view/mount_table.h"

namespace zephlore::view {
namespace {

std::string linkText(const std::string& link) {
  std::vector<char> buf(4096);
  ssize_t n = readlink(link.c_str(), buf.data(), buf.size());
  return n > 0 ? std::string(buf.data(), static_cast<size_t>(n)) : std::string();
}

// A process of ours serving a view of `source` (with /dev/fuse open and a
// directory descriptor on `source` that is not the view itself).
std::string findServingDescriptor(const std::string& source, dev_t viewDevice) {
  DIR* proc = opendir("/proc");
  if (!proc) return "";
  std::string found;
  while (struct dirent* entry = readdir(proc)) {
    const std::string pid = entry->d_name;
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream comm("/proc/" + pid + "/comm");
    std::string name;
    if (!std::getline(comm, name) || name != "zephlore") continue;
    const std::string fds = "/proc/" + pid + "/fd";
    DIR* dir = opendir(fds.c_str());
    if (!dir) continue;
    bool servesFuse = false;
    std::string root;
    while (struct dirent* fd = readdir(dir)) {
      if (fd->d_name[0] == '.') continue;
      const std::string link = fds + "/" + fd->d_name;
      const std::string target = linkText(link);
      if (target == "/dev/fuse") servesFuse = true;
      struct stat st;
      if (target == source && root.empty() && stat(link.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
          st.st_dev != viewDevice) {
        root = link;
      }
    }
    closedir(dir);
    if (servesFuse && !root.empty()) {
      found = root;
      break;
    }
  }
  closedir(proc);
  return found;
}

}  // namespace

std::optional<ViewCover> viewCovering(const std::string& path) {
  const std::string absolute = absolutePath(path);
  std::string bestPoint, bestSource;
  for (const ViewMountEntry& view : viewMounts()) {
    // Later entries are mounted on top of earlier ones.
    if (isWithinFolder(absolute, view.mountPoint) && view.mountPoint.size() >= bestPoint.size()) {
      bestPoint = view.mountPoint;
      bestSource = view.source;
    }
  }
  if (bestPoint.empty()) return std::nullopt;
  struct stat view;
  if (stat(bestPoint.c_str(), &view) != 0) return std::nullopt;  // a dead view: nothing serves it
  std::string beneath = findServingDescriptor(bestSource, view.st_dev);
  if (beneath.empty()) return std::nullopt;
  return ViewCover{bestPoint, beneath};
}

std::map<std::string, std::string> liveViews() {
  std::map<std::string, std::string> views;
  for (const ViewMountEntry& view : viewMounts()) {
    std::optional<ViewCover> cover = viewCovering(view.mountPoint);
    if (cover && cover->mountPoint == view.mountPoint) views[view.mountPoint] = cover->beneath;
  }
  return views;
}

std::string pathBeneathViews(const std::string& path) {
  const std::string absolute = absolutePath(path);
  std::optional<ViewCover> cover = viewCovering(absolute);
  if (!cover) return absolute;
  const std::string rest = cover->mountPoint == "/" ? absolute : absolute.substr(cover->mountPoint.size());
  // "/." makes tools that never follow a final symbolic link step through
  // the descriptor's link to the folder.
  return cover->beneath + (rest.empty() ? "/." : rest);
}

}  // namespace zephlore::view
