// "Open Zephlore": the control surface is the zephlore command, so the menu
// opens a terminal (x-terminal-emulator, else $TERMINAL) running
// `zephlore folders`, and once that terminal runs asks it to show the savings
// history ("com.quorvane.zephlore.show.history").
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/run_loop.h"

namespace zephlore {

class KRControlSurface {
 public:
  KRControlSurface() = delete;

  // The terminal's command line, none when there is no terminal to run.
  static std::vector<std::string> controlSurfaceCommand();
  // Starts the terminal; true once its program runs. A failure is logged.
  static bool openControlSurface();
  // Starts the terminal, then runs `callback` on `mainLoop` if it runs.
  static void openControlSurfaceAndRunBlock(RunLoop& mainLoop, std::function<void()> callback);
  // "Open Zephlore" as the menu does it: the terminal, then the history.
  static void showHistory(RunLoop& mainLoop);
};

}  // namespace zephlore
