#include "platform/fuse_availability.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

namespace zephlore {
namespace {

bool onPath(const std::string& program) {
  const char* path = getenv("PATH");
  std::istringstream dirs(path ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

}  // namespace

bool fuseUsable() {
  const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  close(fd);
  return geteuid() == 0 || onPath("fusermount3");
}

}  // namespace zephlore
