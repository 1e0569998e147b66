// The desktop's own way to start a program at login: an XDG autostart entry,
// $XDG_CONFIG_HOME/autostart/zephlore-helper.desktop, that runs the helper.
#pragma once

#include <string>

#include "platform/env.h"

namespace zephlore::pane {

std::string autostartEntryPath();
bool autostartEntryInstalled(Env& env);

// The helper that belongs to this command: zephlore-helper in the same
// folder as the running zephlore (a build tree or an installed bin folder),
// else the bare name for a PATH look-up at login.
std::string helperExecutablePath(Env& env);

// Writes the entry (from the shipped template, with Exec pointing at
// helperExecutablePath()). False and *problem on failure.
bool installAutostartEntry(Env& env, std::string* problem);
// Removes it; an entry that is not there is no failure.
bool removeAutostartEntry(Env& env, std::string* problem);

// `text` quoted for an Exec line when it needs quoting.
std::string quoteForExec(const std::string& text);

}  // namespace zephlore::pane
