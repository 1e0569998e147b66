#include "testing/private_tmpfs.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>

namespace zephlore::testkit {

PrivateTmpfs::PrivateTmpfs(const std::string& size) {
  if (!mkdtemp(path_.data())) return;
  mounted_ = mount("zephlore-test", path_.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
}

PrivateTmpfs::~PrivateTmpfs() {
  if (mounted_) umount2(path_.c_str(), MNT_DETACH);
  rmdir(path_.c_str());
}

}  // namespace zephlore::testkit
