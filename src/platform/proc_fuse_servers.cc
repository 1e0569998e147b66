#include "platform/proc_fuse_servers.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <vector>

namespace zephlore {
namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;

std::string linkText(const std::string& link) {
  std::vector<char> buf(4096);
  ssize_t n = readlink(link.c_str(), buf.data(), buf.size());
  return n > 0 ? std::string(buf.data(), static_cast<size_t>(n)) : std::string();
}

}  // namespace

std::string findFuseServerDescriptor(const std::string& program, const std::string& source,
                                     const std::string& mountPoint) {
  struct stat mount;
  if (stat(mountPoint.c_str(), &mount) != 0) return "";
  DirStream proc(opendir("/proc"));
  if (!proc) return "";
  while (struct dirent* entry = readdir(proc.get())) {
    const std::string pid = entry->d_name;
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream comm("/proc/" + pid + "/comm");
    std::string name;
    if (!std::getline(comm, name) || name != program) continue;
    const std::string fds = "/proc/" + pid + "/fd";
    DirStream dir(opendir(fds.c_str()));
    if (!dir) continue;
    bool servesFuse = false;
    std::string root;
    while (struct dirent* fd = readdir(dir.get())) {
      if (fd->d_name[0] == '.') continue;
      const std::string link = fds + "/" + fd->d_name;
      const std::string target = linkText(link);
      if (target == "/dev/fuse") servesFuse = true;
      struct stat st;
      if (target == source && root.empty() && stat(link.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
          st.st_dev != mount.st_dev) {
        root = link;
      }
    }
    if (servesFuse && !root.empty()) return root;
  }
  return "";
}

}  // namespace zephlore
