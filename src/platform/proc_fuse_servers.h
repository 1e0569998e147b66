// Finding, in /proc, the process that serves a FUSE mount from a directory
// it holds open: its descriptor reaches the tree beneath the mount.
#pragma once

#include <string>

namespace zephlore {

// "/proc/PID/fd/N": a descriptor, held by a process called `program` that
// has /dev/fuse open, on the directory `source` on another device than the
// mount on `mountPoint`. "" when there is none this process may see, or the
// mount cannot be examined (a dead mount).
std::string findFuseServerDescriptor(const std::string& program, const std::string& source,
                                     const std::string& mountPoint);

}  // namespace zephlore
