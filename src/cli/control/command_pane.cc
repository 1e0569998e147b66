#include "cli/control/command_pane.h"

#include <iostream>

namespace zephlore::cli {

std::unique_ptr<pane::HelperPane> makeCommandPane(Env& env, Clock& clock) {
  return std::make_unique<pane::HelperPane>(pane::PaneParts::standard(env, clock));
}

bool reportTold(pane::Told told, const char* absent, bool* silent) {
  switch (told) {
    case pane::Told::kHeard:
      return true;
    case pane::Told::kNoBus:
      // Only a setting waits in its file for the helper; a request is gone.
      std::cout << "No D-Bus session bus: no running zephlore-helper could be told"
                << (absent == kAppliedAtStart ? "; it applies the change when it starts.\n" : ".\n");
      return false;
    case pane::Told::kSilent:
      std::cerr << "zephlore: zephlore-helper owns its bus name but did not answer within "
                << pane::kHelperStartTimeoutSeconds << " s; it may not have heard this\n";
      if (silent) *silent = true;
      return false;
    case pane::Told::kNotRunning:
      std::cout << absent << "\n";
      return false;
    case pane::Told::kNotTold:
      break;
  }
  return false;
}

}  // namespace zephlore::cli
