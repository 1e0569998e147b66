// The views over a folder as the end-to-end tests look at them.
#pragma once

#include <stdlib.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/descriptor_paths.h"
#include "view/mount_table.h"
#include "view/underlying_tree.h"

namespace zephlore::e2e {

inline int viewsMountedOn(const std::string& folder) {
  int count = 0;
  for (const view::ViewMountEntry& entry : view::viewMounts()) count += entry.mountPoint == folder;
  return count;
}

// The process serving the view over `folder`, 0 when none does.
inline pid_t viewProcess(const std::string& folder) {
  std::optional<view::ViewCover> cover = view::viewCovering(folder);
  if (!cover || cover->mountPoint != folder) return 0;
  const std::optional<DescriptorPathParts> served = splitDescriptorPath(cover->beneath);
  return served ? served->pid : 0;
}

}  // namespace zephlore::e2e
