// Runs a view: opens the tree to show, mounts the view, and serves it until
// it is unmounted (or the process is told to stop).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore::view {

struct ViewMountOptions {
  std::string source;      // the tree shown
  std::string mountPoint;  // where it is shown; the source itself with `over`
  bool over = false;       // mount on the source, serving it from a descriptor opened first
  bool foreground = false;
  size_t cacheBytes = 64u << 20;       // inflated blocks kept for all open files
  std::vector<std::string> fuseOptions;  // further "-o" options (allow_other, ...)
};

// Returns the process's exit status: 0 after a clean unmount, 1 when the
// view could not be mounted (with the reason on standard error). Without
// `foreground` the process goes into the background once the view is
// mounted, and the caller's process returns 0 then. A view left
// disconnected on the mount point by a killed process is unmounted first.
int runView(Env& env, const ViewMountOptions& options);

}  // namespace zephlore::view
