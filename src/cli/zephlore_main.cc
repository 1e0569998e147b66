// zephlore: compress, decompress, inspect and read files and trees, and steer
// the background helper.
#include <CLI/CLI.hpp>

#include "base/clock.h"
#include "base/data_folder.h"
#include "base/log.h"
#include "cli/control/commands.h"
#include "cli/files/commands.h"

int main(int argc, char** argv) {
  zephlore::setLogTarget(zephlore::LogTarget::kStderr);
  CLI::App app{"zephlore: transparent file compression, and the control surface of zephlore-helper"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("zephlore ") + ZEPHLORE_VERSION);
  int exit_code = 0;
  // The one place the command takes the process's Env, makes its clock and
  // finds the data folder; its parts get them from here.
  zephlore::Env& env = zephlore::Env::system();
  zephlore::SystemClock clock;
  zephlore::Error dataFolderError;
  const std::optional<std::string> found = zephlore::findDataFolder(&dataFolderError);
  const zephlore::FoundDataFolder dataFolder{found.value_or(""), dataFolderError.message};
  zephlore::cli::addFileCommands(app, env, clock, dataFolder, &exit_code);
  zephlore::cli::addPaneCommands(app, env, clock, dataFolder.path, &exit_code);
  zephlore::cli::addFolderCommands(app, env, clock, dataFolder.path, &exit_code);
  zephlore::cli::addMountCommands(app, env, clock, dataFolder, &exit_code);
  zephlore::cli::addStatusCommands(app, env, clock, dataFolder.path, &exit_code);
  zephlore::cli::addWindowCommand(app, env, &exit_code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  return exit_code;
}
