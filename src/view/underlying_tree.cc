#include "view/underlying_tree.h"

#include "platform/proc_fuse_servers.h"
#include "protocol/program_names.h"
#include "view/mount_table.h"

namespace zephlore::view {

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
  // A dead view cannot be examined: nothing serves it.
  std::string beneath = findFuseServerDescriptor(kCommandProgram, bestSource, bestPoint);
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
