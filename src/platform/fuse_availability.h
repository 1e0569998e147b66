// Whether this process can mount FUSE file systems. The helper asks it for a
// setting's default and the view before it mounts; neither depends on the other.
#pragma once

namespace zephlore {

// /dev/fuse is there and usable, and fusermount3 is on PATH (or this process
// is root).
bool fuseUsable();

}  // namespace zephlore
