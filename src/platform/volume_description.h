// The pieces of Env::describeVolume(): file-system type names from statfs,
// the mount table, and what /sys says about the disk under a volume.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/env.h"
#include "platform/mount_table.h"

namespace zephlore {

// The Linux name of a statfs f_type ("ext4", "xfs", "btrfs", "tmpfs", ...),
// "Unknown" for a type we do not know.
std::string fileSystemTypeName(uint64_t fType);

// The mount of device `device` whose mount point is the longest prefix of
// `resolvedPath` (bind mounts and subvolumes share a device).
std::optional<MountEntry> mountEntryFor(dev_t device, const std::string& resolvedPath);

// The real implementation behind Env::describeVolume().
std::optional<VolumeDescription> describeVolumeOfPath(const std::string& path);

}  // namespace zephlore
