// The file subcommands: compress, decompress, repair, info and cat.
#include "cli/files/commands.h"
#include "cli/files/file_command_parts.h"

namespace zephlore::cli {

void addFileCommands(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code) {
  addCompressCommands(app, env, clock, dataFolder, exit_code);
  addRepairCommand(app, env, clock, dataFolder, exit_code);
  addInfoCommand(app, env, exit_code);
  addCatCommand(app, env, exit_code);
}

}  // namespace zephlore::cli
