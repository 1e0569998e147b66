// zephlore preferences: opens the preference window and returns at once.
#include <iostream>

#include "cli/control/commands.h"
#include "platform/programs.h"
#include "protocol/program_names.h"

namespace zephlore::cli {

void addWindowCommand(CLI::App& app, Env&, int* exit_code) {
  CLI::App* preferences = app.add_subcommand(
      "preferences", "Open the preference window (zephlore-preferences) and return without waiting for it");
  preferences->callback([exit_code] {
    // The window installed with this command (beside it), else one on PATH.
    const std::string window = findProgram(thisProgramFolder(), kPreferencesProgram);
    if (window.empty()) {
      std::cerr << "zephlore: the preference window is not installed (no " << kPreferencesProgram
                << " beside zephlore or on PATH)\n";
      *exit_code = 1;
      return;
    }
    std::string problem;
    if (!startProgram({window}, &problem)) {
      std::cerr << "zephlore: cannot open the preference window: " << problem << "\n";
      *exit_code = 1;
      return;
    }
    *exit_code = 0;
  });
}

}  // namespace zephlore::cli
