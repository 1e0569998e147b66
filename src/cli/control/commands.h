// The helper's control surface in the zephlore command, one file per area:
//   pane_commands.cc    settings, activate, exclude, login, quit, ...
//   folder_commands.cc  add, remove, folders (the watched folders)
//   status_commands.cc  status, pause, resume (the running helper's live state)
//   window_command.cc   preferences (opens the preference window)
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "base/clock.h"
#include "platform/env.h"

namespace zephlore::cli {

// Each adds its subcommands to `app`, which reach the system through `env`
// and find the files shared with the helper in `dataFolder` ("": none).
// A subcommand's callback stores its exit status in `*exit_code` (0 success,
// 1 failure; usage errors are CLI11's 2).
void addPaneCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code);
void addFolderCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code);
void addStatusCommands(CLI::App& app, Env& env, Clock& clock, const std::string& dataFolder, int* exit_code);
void addWindowCommand(CLI::App& app, Env& env, int* exit_code);

}  // namespace zephlore::cli
