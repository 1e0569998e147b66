// The file tools' subcommands, registered by area so that each area lives in
// its own file. They need the engine (and the view for mount) alone:
//   file_commands.cc   compress, decompress, repair, info, cat (files and trees)
//   mount_commands.cc  mount, unmount (the view at full content)
#pragma once

#include <CLI/CLI.hpp>

#include "base/clock.h"
#include "base/data_folder.h"
#include "platform/env.h"

namespace zephlore::cli {

// Each adds its subcommands to `app`. A subcommand's callback stores its exit
// status in `*exit_code` (0 success, 1 failure; usage errors are CLI11's 2).
// Converting runs keep their in-process record in `dataFolder`.
void addFileCommands(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code);
void addMountCommands(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code);

}  // namespace zephlore::cli
