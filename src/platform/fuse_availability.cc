#include "platform/fuse_availability.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
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

bool othersMayEnterFuseMounts() { return geteuid() == 0 || fuseConfAllowsOthers("/etc/fuse.conf"); }

// As fusermount3 reads it: one option a line, surrounding blanks ignored,
// "#" starting a comment line.
bool fuseConfAllowsOthers(const std::string& fuseConf) {
  std::ifstream conf(fuseConf);
  for (std::string line; std::getline(conf, line);) {
    const size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string::npos || line[begin] == '#') continue;
    const size_t end = line.find_last_not_of(" \t\r");
    if (line.compare(begin, end - begin + 1, "user_allow_other") == 0) return true;
  }
  return false;
}

}  // namespace zephlore
