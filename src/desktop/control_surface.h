// "Open Zephlore": the preference window (zephlore-preferences), and once it
// runs the savings history is asked for ("com.quorvane.zephlore.show.history").
// Where the window is not installed, a terminal (x-terminal-emulator, else
// $TERMINAL) running `zephlore folders` stands in for it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/run_loop.h"
#include "platform/programs.h"

namespace zephlore {

class DistributedNotificationCenter;

class KRControlSurface {
 public:
  KRControlSurface() = delete;

  // The command line that opens Zephlore, with the programs looked for in
  // `programFolder` first, then on PATH; none when there is nothing to run.
  static std::vector<std::string> controlSurfaceCommand(const std::string& programFolder = thisProgramFolder());
  // Starts it; true once its program runs. A failure is logged.
  static bool openControlSurface(const std::string& programFolder = thisProgramFolder());
  // Starts it, then runs `callback` on `mainLoop` if it runs.
  static void openControlSurfaceAndRunBlock(RunLoop& mainLoop, std::function<void()> callback,
                                            const std::string& programFolder = thisProgramFolder());
  // "Open Zephlore" as the menu does it: the window, then the history
  // (asked for on `bus`).
  static void showHistory(RunLoop& mainLoop, DistributedNotificationCenter& bus,
                          const std::string& programFolder = thisProgramFolder());
};

}  // namespace zephlore
