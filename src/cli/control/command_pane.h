// The command's pane: the one implementation of the pane's side
// (src/pane), over this process's bus connection, clock and settings file,
// and the command's words for whether the helper heard.
#pragma once

#include <memory>
#include <string>

#include "pane/helper_pane.h"
#include "base/clock.h"
#include "platform/env.h"

namespace zephlore::cli {

// A pane over a session-bus connection of its own, which ends with it, and
// the shared files in `dataFolder`.
std::shared_ptr<pane::HelperPane> makeCommandPane(Env& env, Clock& clock, const std::string& dataFolder);

inline constexpr const char* kAppliedAtStart = "zephlore-helper is not running; it applies the change when it starts.";

// Says what `told` means when it is not the plain success: `absent` when no
// helper runs. True when a running helper heard; *silent when one runs but
// never answered.
bool reportTold(pane::Told told, const char* absent = kAppliedAtStart, bool* silent = nullptr);

}  // namespace zephlore::cli
