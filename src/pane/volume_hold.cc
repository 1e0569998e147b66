#include "pane/volume_hold.h"

#include <sys/stat.h>

#include "platform/volume_capabilities.h"
#include "platform/volume_description.h"
#include "view/underlying_tree.h"

namespace zephlore::pane {

std::optional<std::string> volumeCannotHoldReason(Env& env, const std::string& folder) {
  const std::string beneath = view::pathBeneathViews(folder);
  struct stat st;
  if (env.stat(beneath, &st) != 0 || !S_ISDIR(st.st_mode)) return std::nullopt;
  if (VolumeCapabilities::canHoldCompressedForm(env, beneath)) return std::nullopt;
  std::optional<size_t> most = VolumeCapabilities::measuredPieceSize(env, beneath);
  if (!most) return "no scratch file could be made there to measure what its attributes hold";
  if (*most == 0) return "its file system takes no user attributes";
  std::string why = "its file system accepts at most " + std::to_string(*most) + " bytes of attributes per file";
  struct stat at;
  std::optional<std::string> path = env.realPath(folder);
  if (path && env.stat(*path, &at) == 0) {
    std::optional<MountEntry> mount = mountEntryFor(at.st_dev, *path);
    if (mount && mount->fsType == "ext4") why += " (ext4 without ea_inode)";
  }
  return why;
}

}  // namespace zephlore::pane
