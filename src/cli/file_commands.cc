#include "cli/commands.h"

namespace zephlore::cli {

void addFileCommands(CLI::App&, int*) {}

}  // namespace zephlore::cli
