#include "desktop/control_surface.h"

#include <glib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "base/log.h"
#include "helper/bus/distributed_notification_center.h"
#include "protocol/notification_names.h"

namespace zephlore {
namespace {

// The zephlore command beside the helper (a build or an install), else the
// one on PATH.
std::string zephloreCommand() {
  std::error_code ec;
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    std::filesystem::path sibling = self.parent_path() / "zephlore";
    if (access(sibling.c_str(), X_OK) == 0) return sibling.string();
  }
  return "zephlore";
}

}  // namespace

std::vector<std::string> KRControlSurface::controlSurfaceCommand() {
  std::string terminal;
  if (gchar* found = g_find_program_in_path("x-terminal-emulator")) {
    terminal = found;
    g_free(found);
  } else if (const char* chosen = getenv("TERMINAL"); chosen && *chosen) {
    terminal = chosen;
  } else {
    return {};
  }
  return {terminal, "-e", zephloreCommand(), "folders"};
}

bool KRControlSurface::openControlSurface() {
  std::vector<std::string> command = controlSurfaceCommand();
  if (command.empty()) {
    KRLog("Cannot open Zephlore: no x-terminal-emulator and no $TERMINAL");
    return false;
  }
  std::vector<gchar*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  GError* error = nullptr;
  // Returns once the program was started (or failed to be); GLib reaps the
  // terminal through an intermediate child, so nothing is left to wait for.
  if (!g_spawn_async(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, nullptr, &error)) {
    KRLog("Cannot open Zephlore with %s: %s", command[0].c_str(), error->message);
    g_clear_error(&error);
    return false;
  }
  return true;
}

void KRControlSurface::openControlSurfaceAndRunBlock(RunLoop& mainLoop, std::function<void()> callback) {
  if (openControlSurface() && callback) mainLoop.post(std::move(callback));
}

void KRControlSurface::showHistory(RunLoop& mainLoop) {
  openControlSurfaceAndRunBlock(mainLoop, [] {
    DistributedNotificationCenter::defaultCenter().postNotificationName(kShowHistoryNotification);
  });
}

}  // namespace zephlore
