#include "platform/volume_description.h"

#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <vector>

namespace zephlore {
namespace {

std::string readFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::optional<std::string> resolved(const std::string& path) {
  char buf[PATH_MAX];
  if (!::realpath(path.c_str(), buf)) return std::nullopt;
  return std::string(buf);
}

bool isPathPrefix(const std::string& prefix, const std::string& path) {
  if (prefix == "/") return true;
  return path.compare(0, prefix.size(), prefix) == 0 &&
         (path.size() == prefix.size() || path[prefix.size()] == '/');
}

// Fills the disk facts from /sys for block device `rdev`; leaves them false
// when the volume has no disk (tmpfs, network, ...).
void describeDisk(dev_t rdev, VolumeDescription* volume) {
  const std::string link = "/sys/dev/block/" + std::to_string(major(rdev)) + ":" +
                           std::to_string(minor(rdev));
  std::optional<std::string> device = resolved(link);
  if (!device) return;
  std::string disk = *device;
  if (access((disk + "/partition").c_str(), F_OK) == 0) disk = parentDirectory(disk);
  volume->removable = readFirstLine(disk + "/removable") == "1";
  if (disk.find("/devices/virtual/") != std::string::npos) return;  // loop, device mapper, ...
  volume->external = disk.find("/usb") != std::string::npos ||
                     disk.find("/firewire") != std::string::npos ||
                     disk.find("/thunderbolt") != std::string::npos;
  volume->internal = !volume->external;
  volume->ejectable = volume->removable || volume->external;
}

}  // namespace

std::string fileSystemTypeName(uint64_t fType) {
  struct Name {
    uint64_t magic;
    const char* name;
  };
  static constexpr Name kNames[] = {
      {0xEF53, "ext4"},           {0x58465342, "xfs"},       {0x9123683E, "btrfs"},
      {0x01021994, "tmpfs"},      {0x858458F6, "ramfs"},     {0x6969, "nfs"},
      {0x65735546, "fuse"},       {0x4D44, "vfat"},          {0x2011BAB0, "exfat"},
      {0x5346544E, "ntfs"},       {0xF2F52010, "f2fs"},      {0x2FC12FC1, "zfs"},
      {0xCA451A4E, "bcachefs"},   {0x794C7630, "overlay"},   {0x4244, "hfs"},
      {0x482B, "hfsplus"},        {0x9660, "iso9660"},       {0x15013346, "udf"},
      {0x73717368, "squashfs"},   {0xFF534D42, "cifs"},      {0xFE534D42, "smb2"},
      {0x00C36400, "ceph"},       {0x9FA0, "proc"},          {0x62656572, "sysfs"},
      {0x3434, "nilfs2"},         {0x52654973, "reiserfs"},  {0x3153464A, "jfs"},
      {0xE0F5E1E2, "erofs"},      {0xF15F, "ecryptfs"},      {0x01161970, "gfs2"},
  };
  for (const Name& entry : kNames) {
    if (entry.magic == (fType & 0xFFFFFFFFu)) return entry.name;
  }
  return "Unknown";
}

std::optional<MountEntry> mountEntryFor(dev_t device, const std::string& resolvedPath) {
  std::optional<MountEntry> best;
  for (MountEntry& entry : mountTable()) {
    if (entry.major != major(device) || entry.minor != minor(device)) continue;
    if (!isPathPrefix(entry.mountPoint, resolvedPath)) continue;
    if (!best || entry.mountPoint.size() >= best->mountPoint.size()) best = std::move(entry);
  }
  return best;
}

std::optional<VolumeDescription> describeVolumeOfPath(const std::string& path) {
  struct stat st;
  struct statfs fs;
  struct statvfs vfs;
  if (::stat(path.c_str(), &st) != 0 || ::statfs(path.c_str(), &fs) != 0 ||
      ::statvfs(path.c_str(), &vfs) != 0) {
    return std::nullopt;
  }
  VolumeDescription volume;
  volume.device = st.st_dev;
  volume.fileSystemType = fileSystemTypeName(static_cast<uint64_t>(fs.f_type));
  volume.writable = (vfs.f_flag & ST_RDONLY) == 0;

  std::optional<MountEntry> mount = mountEntryFor(st.st_dev, resolved(path).value_or(path));
  if (mount) volume.mountPoint = mount->mountPoint;

  // Btrfs gives each subvolume an anonymous device number; the disk is the
  // mount's source device then.
  dev_t disk = st.st_dev;
  if (major(disk) == 0 && mount && mount->source.rfind("/dev/", 0) == 0) {
    struct stat source;
    if (::stat(mount->source.c_str(), &source) == 0 && S_ISBLK(source.st_mode)) {
      disk = source.st_rdev;
    }
  }
  if (major(disk) != 0) describeDisk(disk, &volume);
  return volume;
}

}  // namespace zephlore
