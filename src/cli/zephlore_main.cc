// zephlore: compress, decompress, inspect and read files and trees, and steer
// the background helper.
#include <CLI/CLI.hpp>

#include "base/clock.h"
#include "base/log.h"
#include "cli/control/commands.h"
#include "cli/files/commands.h"

int main(int argc, char** argv) {
  zephlore::setLogTarget(zephlore::LogTarget::kStderr);
  CLI::App app{"zephlore: transparent file compression, and the control surface of zephlore-helper"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("zephlore ") + ZEPHLORE_VERSION);
  int exit_code = 0;
  // The one place the command takes the process's Env and makes its clock; its parts get them from here.
  zephlore::Env& env = zephlore::Env::shared();
  zephlore::SystemClock clock;
  zephlore::cli::addFileCommands(app, env, clock, &exit_code);
  zephlore::cli::addPaneCommands(app, env, clock, &exit_code);
  zephlore::cli::addFolderCommands(app, env, clock, &exit_code);
  zephlore::cli::addMountCommands(app, env, clock, &exit_code);
  zephlore::cli::addStatusCommands(app, env, clock, &exit_code);
  zephlore::cli::addWindowCommand(app, env, &exit_code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  return exit_code;
}
