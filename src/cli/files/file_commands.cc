// The file subcommands: compress, decompress, repair, info and cat.
#include "cli/files/commands.h"
#include "cli/files/file_command_parts.h"

namespace zephlore::cli {

void addFileCommands(CLI::App& app, int* exit_code) {
  addCompressCommands(app, exit_code);
  addRepairCommand(app, exit_code);
  addInfoCommand(app, exit_code);
  addCatCommand(app, exit_code);
}

}  // namespace zephlore::cli
