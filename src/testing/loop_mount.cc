#include "testing/loop_mount.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace zephlore::testkit {

LoopMount::LoopMount(const std::string& mkfs, const std::string& size) {
  if (geteuid() != 0) {
    reason_ = "mounting a loop image needs root";
    return;
  }
  image_ = dir_ / "image";
  mountPoint_ = dir_ / "mnt";
  const std::string quiet = " >/dev/null 2>&1";
  if (std::system(("truncate -s " + size + " " + image_ + quiet).c_str()) != 0 ||
      std::system((mkfs + " " + image_ + quiet).c_str()) != 0) {
    reason_ = "cannot make the image with: " + mkfs;
    return;
  }
  mkdir(mountPoint_.c_str(), 0755);
  if (std::system(("mount -o loop " + image_ + " " + mountPoint_ + quiet).c_str()) != 0) {
    reason_ = "cannot loop-mount an image here (no loop device?)";
    return;
  }
  mounted_ = true;
}

LoopMount::~LoopMount() {
  if (mounted_) umount2(mountPoint_.c_str(), MNT_DETACH);
}

}  // namespace zephlore::testkit
