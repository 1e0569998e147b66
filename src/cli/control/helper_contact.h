// Reaching zephlore-helper from the command: starting it when no copy owns
// its bus name, and telling it the command's version so that a helper older
// than the installed package restarts into the new one.
#pragma once

#include <string>

namespace zephlore::cli {

// Seconds the command waits for a helper it started to take its bus name.
inline constexpr double kHelperStartTimeoutSeconds = 5.0;

// True when a helper owns its bus name, starting one (found beside this
// program, else on PATH) and waiting for it when none does. False with
// *problem when there is no bus or the helper did not come up in time.
bool ensureHelperRunning(std::string* problem);

enum class HelperPresence { kListens, kNotRunning, kSilent };
// Whether a helper runs and listens to the command's notices and methods.
// One that owns its bus name but is still starting up is waited for, up to
// kHelperStartTimeoutSeconds; kSilent when it never answered in that time.
HelperPresence waitUntilHelperListens();

// Posts "com.quorvane.zephlore.version" with the command's version when a
// helper runs. Part of every control command.
void postVersionIfHelperRuns();

}  // namespace zephlore::cli
