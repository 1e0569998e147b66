#include "helper/config_home.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace zephlore {

std::string configHome() {
  const char* xdg = getenv("XDG_CONFIG_HOME");
  if (xdg && xdg[0] == '/') return xdg;
  const char* home = getenv("HOME");
  if (home && home[0] == '/') return std::string(home) + "/.config";
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
  struct passwd pw;
  struct passwd* found = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) == 0 && found &&
      found->pw_dir[0] == '/') {
    return std::string(found->pw_dir) + "/.config";
  }
  return "/tmp";
}

bool makeFolders(const std::string& path) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos == path.size() || path[pos] == '/') mkdir(path.substr(0, pos).c_str(), 0700);
  }
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace zephlore
