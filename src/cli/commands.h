// The zephlore command's subcommands, registered by area so that each area
// lives in its own file:
//   file_commands.cc  compress, decompress, info, cat (files and trees)
//   pane_commands.cc  settings, activate, exclude, login, quit, ... (the
//                     helper's control surface)
//   folder_commands.cc add, remove, folders (the watched folders)
//   mount_commands.cc mount, unmount (the view at full content)
//   status_commands.cc  status, pause, resume (the running helper's live state)
#pragma once

#include <CLI/CLI.hpp>

namespace zephlore::cli {

// Each adds its subcommands to `app`. A subcommand's callback stores its exit
// status in `*exit_code` (0 success, 1 failure; usage errors are CLI11's 2).
void addFileCommands(CLI::App& app, int* exit_code);
void addPaneCommands(CLI::App& app, int* exit_code);
void addFolderCommands(CLI::App& app, int* exit_code);
void addMountCommands(CLI::App& app, int* exit_code);
void addStatusCommands(CLI::App& app, int* exit_code);

}  // namespace zephlore::cli
