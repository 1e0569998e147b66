// zephlore compress / decompress [-r] [-j N] [--dry-run] [--json] PATH...
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cli/files/beneath_views.h"
#include "cli/files/conversion_safety.h"
#include "cli/files/file_actions.h"
#include "cli/files/file_command_parts.h"
#include "cli/files/tree_run.h"
#include "platform/descriptor_paths.h"
#include "view/mount_table.h"
#include "view/underlying_tree.h"

namespace zephlore::cli {
namespace {

struct ConvertCliOptions {
  std::vector<std::string> paths;
  RunOptions run;
  bool no_verify = false;
};

// Under a view the stored files are reached beneath it: through the view
// they look plain and their layout cannot be written. The paths to work on;
// `run` learns to print them as given.
std::vector<std::string> beneathViews(const std::vector<std::string>& given, RunOptions* run) {
  std::vector<std::string> paths;
  // A path beneath a view means nothing to the user: every line names the
  // path as given.
  auto shown = std::make_shared<std::vector<std::pair<std::string, std::string>>>();  // beneath, given
  for (const std::string& path : given) {
    const std::string beneath = view::pathBeneathViews(path);
    if (beneath == view::absolutePath(path)) {
      paths.push_back(path);
      continue;
    }
    paths.push_back(beneath);
    shown->emplace_back(beneath, path);
    if (!run->quiet && !run->json) {
      fprintf(stderr, "zephlore: %s is covered by a view; working on the files stored beneath it\n", path.c_str());
    }
  }
  if (!shown->empty()) run->shownAs = [shown](const std::string& text) { return withDescriptorPathsShown(text, *shown); };
  return paths;
}

CLI::App* addConvertCommand(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, Operation op,
                            const char* description, int* exit_code) {
  auto options = std::make_shared<ConvertCliOptions>();
  options->run.op = op;
  const bool compress = op == Operation::kCompress;
  CLI::App* cmd = app.add_subcommand(operationName(op), description);
  cmd->add_option("PATH", options->paths, "Files or, with -r, directories")->required();
  cmd->add_flag("-r,--recursive", options->run.recursive,
                "Walk directories (depth first; symbolic links are never followed)");
  cmd->add_option("-j,--jobs", options->run.jobs,
                  "Threads to use (default: the number of cores); small files run side by side, "
                  "a large file gets them all for its blocks")
      ->check(CLI::Range(1, 1024));
  cmd->add_flag("-n,--dry-run", options->run.dry_run,
                compress ? "Only tell which files would be compressed" : "Only tell which files would be decompressed");
  cmd->add_flag("--json", options->run.json,
                "Print the summary as one JSON object on one line (and, with --verbose, one object per file before it)");
  cmd->add_flag("-v,--verbose", options->run.verbose, "One line per file, skipped files included");
  cmd->add_flag("-q,--quiet", options->run.quiet, "No progress line, no summary; only failures are printed");
  cmd->add_flag("--cross-volumes", options->run.cross_volumes, "Descend into directories on other volumes");
  if (compress) {
    cmd->add_flag("--no-verify", options->no_verify,
                  "Do not inflate each block again before the compressed copy replaces the file");
  }
  cmd->footer(compress
                  ? "A file is compressed when it is a regular file of at least 4096 bytes, not yet "
                    "compressed, without a valid not-compressible marker, owned by you, writable, and "
                    "with a single hard link; every other file is skipped with its reason. A file "
                    "whose data does not shrink is marked not compressible.\n"
                    "Size limit: a file's compressed data is kept in attribute pieces whose names must "
                    "fit in the file's 64 KiB attribute list, so it can be at most about 126 MiB "
                    "(2016 pieces of 64 KiB on tmpfs, XFS and ext4 with ea_inode; about 30 MiB on "
                    "btrfs, whose pieces hold about 15 KiB), and ext4 keeps a file's attribute names in "
                    "one block: about 6 MiB with 4 KiB blocks. A file whose compressed data passes its "
                    "volume's limit fails as soon as it does, stays as it was and is marked, so that "
                    "it is not tried again until it changes.\n"
                    "Ctrl-C stops taking new files, finishes the files in flight whole and prints the "
                    "summary so far.\n"
                    "Exit status: 0 when every file was compressed or skipped, 1 when any failed, 2 on "
                    "usage errors, 130 when interrupted (Ctrl-C), 143 when ended by SIGTERM.\n"
                  : "Compressed files are expanded in place; plain files are skipped. A file written "
                    "after it was compressed is refused, so that neither version is lost.\n"
                    "Exit status: 0 when every file was decompressed or skipped, 1 when any failed, 2 "
                    "on usage errors, 130 when interrupted (Ctrl-C), 143 when ended by SIGTERM.\n");
  cmd->callback([&env, &clock, &dataFolder, options, exit_code] {
    RunOptions run = options->run;
    run.progress = !run.quiet && !run.json && isatty(STDOUT_FILENO) && isatty(STDERR_FILENO);
    std::unique_ptr<ConversionSafety> safety =
        run.dry_run ? nullptr : std::make_unique<ConversionSafety>(env, dataFolder);
    std::unique_ptr<FileAction> action = run.op == Operation::kCompress
                                             ? makeCompressAction(env, clock, !options->no_verify, safety.get())
                                             : makeDecompressAction(env, safety.get());
    if (reportDeadViews(options->paths, operationName(run.op))) {
      *exit_code = 1;
      return;
    }
    const std::vector<std::string> paths = beneathViews(options->paths, &run);
    *exit_code = runFiles(env, clock, paths, run, *action);
  });
  return cmd;
}

}  // namespace

int defaultJobs() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    const int n = CPU_COUNT(&set);
    if (n > 0) return n;
  }
  const unsigned n = std::thread::hardware_concurrency();
  return n > 0 ? static_cast<int>(n) : 1;
}

void addCompressCommands(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code) {
  addConvertCommand(app, env, clock, dataFolder, Operation::kCompress,
                    "Compress files in place into the transparent compressed form", exit_code);
  addConvertCommand(app, env, clock, dataFolder, Operation::kDecompress, "Expand compressed files in place into plain files",
                    exit_code);
}

}  // namespace zephlore::cli
