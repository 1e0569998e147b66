#include "cli/commands.h"

namespace zephlore::cli {

void addPaneCommands(CLI::App&, int*) {}

}  // namespace zephlore::cli
