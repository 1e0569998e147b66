#include "cli/control/volume_advice.h"

#include <sys/stat.h>

#include <iostream>

#include "pane/volume_hold.h"
#include "platform/volume_description.h"

namespace zephlore::cli {

using pane::volumeCannotHoldReason;

namespace {

// The mount holding `folder`, as the mount table names it.
std::optional<MountEntry> mountOf(Env& env, const std::string& folder) {
  struct stat st;
  std::optional<std::string> path = folder.empty() ? std::nullopt : env.realPath(folder);
  if (!path || env.stat(*path, &st) != 0) return std::nullopt;
  return mountEntryFor(st.st_dev, *path);
}

}  // namespace

std::vector<std::string> volumeFix(Env& env, const std::string& folder) {
  std::optional<MountEntry> mount = mountOf(env, folder);
  if (mount && mount->fsType == "ext4") {
    return {"To fix it, as root: tune2fs -O ea_inode " + mount->source,
            "(it works on the mounted volume and takes effect at once, but cannot be undone: afterwards kernels "
            "before 4.13 cannot mount the volume and GRUB cannot read it, so never do it to the volume that "
            "holds /boot)"};
  }
  return {"Choose a folder on a volume that takes large attributes: tmpfs, XFS, btrfs, or ext4 with ea_inode"};
}

bool volumesCanHoldOrAnyway(Env& env, const std::vector<std::string>& arguments, bool anyway) {
  bool all = true;
  for (const std::string& argument : arguments) {
    std::optional<std::string> why = volumeCannotHoldReason(env, argument);
    if (!why) continue;
    all = false;
    std::cerr << "zephlore: " << argument << ": its volume cannot hold compressed files: " << *why << "\n";
    for (const std::string& line : volumeFix(env, argument)) std::cerr << "  " << line << "\n";
    if (anyway) {
      std::cerr << "  Watching it anyway (--anyway): nothing in it is compressed until its volume can hold the form.\n";
    }
  }
  if (!all && !anyway) std::cerr << "zephlore: nothing was added (--anyway watches such folders all the same)\n";
  return all || anyway;
}

}  // namespace zephlore::cli
