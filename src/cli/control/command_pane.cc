#include "cli/control/command_pane.h"

#include <iostream>

#include "helper/bus/distributed_notification_center.h"

namespace zephlore::cli {

namespace {

// The bus connection is made before the pane and ends after it.
struct CommandPane {
  CommandPane(Env& env, Clock& clock, const std::string& dataFolder)
      : pane(pane::PaneParts::standard(env, clock, bus, dataFolder)) {}
  DistributedNotificationCenter bus;
  pane::HelperPane pane;
};

}  // namespace

std::shared_ptr<pane::HelperPane> makeCommandPane(Env& env, Clock& clock, const std::string& dataFolder) {
  auto made = std::make_shared<CommandPane>(env, clock, dataFolder);
  return std::shared_ptr<pane::HelperPane>(made, &made->pane);
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
