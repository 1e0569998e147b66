#include "testing/test_home.h"

#include <sys/stat.h>

#include <stdexcept>

namespace zephlore::testkit {

namespace {
std::string makeFolder(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0) throw std::runtime_error("mkdir " + path);
  return path;
}
}  // namespace

TestHome::TestHome()
    : home_("HOME", root_.path()),
      data_("XDG_DATA_HOME", makeFolder(root_ / "data", 0755)),
      config_("XDG_CONFIG_HOME", makeFolder(root_ / "config", 0755)),
      // Not the machine's /etc/xdg: an installed package's entries there
      // must not change what the tests see.
      system_config_("XDG_CONFIG_DIRS", makeFolder(root_ / "xdg", 0755)),
      runtime_("XDG_RUNTIME_DIR", makeFolder(root_ / "run", 0700)),
      bus_("DBUS_SESSION_BUS_ADDRESS", std::nullopt) {
  makeFolder(dataFolder(), 0700);
}

ScopedRuntimeDir::ScopedRuntimeDir() : runtime_("XDG_RUNTIME_DIR", dir_.path()) {}

}  // namespace zephlore::testkit
