#include "desktop/control_surface.h"

#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "helper/bus/distributed_notification_center.h"
#include "protocol/notification_names.h"
#include "protocol/program_names.h"

namespace zephlore {

std::vector<std::string> KRControlSurface::controlSurfaceCommand(const std::string& programFolder) {
  const std::string window = findProgram(programFolder, kPreferencesProgram);
  if (!window.empty()) return {window};

  std::string terminal = findProgram("", "x-terminal-emulator");
  if (terminal.empty()) {
    const char* chosen = getenv("TERMINAL");
    if (!chosen || !*chosen) return {};
    terminal = strchr(chosen, '/') ? chosen : findProgram("", chosen);
    if (terminal.empty()) return {};
  }
  std::string command = findProgram(programFolder, kCommandProgram);
  if (command.empty()) command = kCommandProgram;
  return {terminal, "-e", command, "folders"};
}

bool KRControlSurface::openControlSurface(const std::string& programFolder) {
  std::vector<std::string> command = controlSurfaceCommand(programFolder);
  if (command.empty()) {
    KRLog("Cannot open Zephlore: no %s, no x-terminal-emulator and no $TERMINAL", kPreferencesProgram);
    return false;
  }
  std::string problem;
  if (!startProgram(command, &problem)) {
    KRLog("Cannot open Zephlore with %s: %s", command[0].c_str(), problem.c_str());
    return false;
  }
  return true;
}

void KRControlSurface::openControlSurfaceAndRunBlock(RunLoop& mainLoop, std::function<void()> callback,
                                                     const std::string& programFolder) {
  if (openControlSurface(programFolder) && callback) mainLoop.post(std::move(callback));
}

void KRControlSurface::showHistory(RunLoop& mainLoop, DistributedNotificationCenter& bus,
                                   const std::string& programFolder) {
  openControlSurfaceAndRunBlock(
      mainLoop, [&bus] { bus.postNotificationName(kShowHistoryNotification); }, programFolder);
}

}  // namespace zephlore
