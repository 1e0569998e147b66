// Whether this process can mount FUSE file systems. The helper asks it for a
// setting's default and the view before it mounts; neither depends on the other.
#pragma once

#include <string>

namespace zephlore {

// /dev/fuse is there and usable, and fusermount3 is on PATH (or this process
// is root).
bool fuseUsable();

// Whether this process's mounts may let other users in (allow_other): root's
// always, anyone else's only where the administrator put user_allow_other
// in fusermount3's configuration.
bool othersMayEnterFuseMounts();
// Whether that configuration file lets every user's mounts do so.
bool fuseConfAllowsOthers(const std::string& fuseConf);

}  // namespace zephlore
