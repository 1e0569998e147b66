// The subcommands of file_commands.cc, one file each.
#pragma once

#include <CLI/CLI.hpp>

#include "base/clock.h"
#include "base/data_folder.h"
#include "platform/env.h"

namespace zephlore::cli {

void addCompressCommands(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code);  // compress, decompress
void addRepairCommand(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code);
void addInfoCommand(CLI::App& app, Env& env, int* exit_code);
void addCatCommand(CLI::App& app, Env& env, int* exit_code);

// The default for -j: the number of cores this process may run on.
int defaultJobs();

}  // namespace zephlore::cli
