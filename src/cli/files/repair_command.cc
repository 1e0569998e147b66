// zephlore repair [-r] PATH...: settles what no run can decide alone.
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "cli/files/beneath_views.h"
#include "cli/files/conversion_safety.h"
#include "cli/files/file_command_parts.h"
#include "cli/files/tree_run.h"
#include "engine/compressed_file_info.h"
#include "engine/file_repair.h"
#include "platform/env.h"

namespace zephlore::cli {
namespace {

class RepairAction : public FileAction {
 public:
  RepairAction(Env& env, ConversionSafety* safety) : env_(env), safety_(safety) {}

  void temporarySeen(const WalkEntry& entry) override {
    if (safety_) safety_->cleanFolderOf(std::string(entry.path));
  }

  std::optional<FileResult> check(const WalkEntry& entry, bool) override {
    const uint64_t size = static_cast<uint64_t>(entry.st->st_size);
    if (!S_ISREG(entry.st->st_mode)) return skipped(std::string(entry.path), SkipReason::kNotRegular, size, entry.named);
    CompressedFileInfo info;
    Error error;
    if (!CompressedFileInfo::inspect(env_, std::string(entry.path), &info, &error, false)) {
      return failed(std::string(entry.path), error, size, entry.named);
    }
    if (info.state == CompressionState::kPlain || info.state == CompressionState::kCompressed) {
      return skipped(std::string(entry.path), SkipReason::kWhole, size, entry.named);
    }
    return std::nullopt;
  }

  FileResult run(const FilePipeline::Job& job, int) override {
    if (safety_) safety_->cleanFolderOf(job.path);
    Error error;
    switch (QVFileRepair::repairFile(env_, job.path, &error)) {
      case QVFileRepair::Outcome::kWhole:
        return skipped(job.path, SkipReason::kWhole, job.size, job.named);
      case QVFileRepair::Outcome::kFailed:
        return failed(job.path, error, job.size, job.named);
      case QVFileRepair::Outcome::kRepaired:
        break;
    }
    FileResult r;
    r.path = job.path;
    r.outcome = Outcome::kConverted;
    r.size_before = job.size;
    struct stat st;
    r.size_after = env_.lstat(job.path, &st) == 0 ? static_cast<uint64_t>(st.st_size) : job.size;
    return r;
  }

 private:
  Env& env_;
  ConversionSafety* safety_;
};

struct RepairCliOptions {
  std::vector<std::string> paths;
  RunOptions run;
};

}  // namespace

void addRepairCommand(CLI::App& app, Env& env, Clock& clock, const FoundDataFolder& dataFolder, int* exit_code) {
  auto options = std::make_shared<RepairCliOptions>();
  options->run.op = Operation::kRepair;
  CLI::App* cmd = app.add_subcommand("repair", "Repair files written after compression or cut short");
  cmd->add_option("PATH", options->paths, "Files or, with -r, directories")->required();
  cmd->add_flag("-r,--recursive", options->run.recursive,
                "Walk directories (depth first; symbolic links are never followed)");
  cmd->add_flag("-n,--dry-run", options->run.dry_run, "Only tell which files would be repaired");
  cmd->add_flag("--json", options->run.json, "Print the summary as one JSON object on one line");
  cmd->add_flag("-v,--verbose", options->run.verbose, "One line per file, whole files included");
  cmd->add_flag("-q,--quiet", options->run.quiet, "No progress line, no summary; only failures are printed");
  cmd->add_flag("--cross-volumes", options->run.cross_volumes, "Descend into directories on other volumes");
  cmd->footer(
      "A file written after it was compressed keeps the data written at its name and becomes a plain "
      "file; its compressed version is expanded beside it as NAME.zephlore-recovered (never over an "
      "existing file). A file whose conversion was cut short is expanded. A damaged file is reported "
      "and left as it is. Temporary files that stopped runs left in the folders are settled too.\n"
      "Exit status: 0 when every file is whole or was repaired, 1 when any could not be, 2 on usage "
      "errors, 130 when interrupted, 143 on SIGTERM.\n");
  cmd->callback([&env, &clock, &dataFolder, options, exit_code] {
    RunOptions run = options->run;
    run.jobs = 1;
    run.progress = !run.quiet && !run.json && isatty(STDOUT_FILENO) && isatty(STDERR_FILENO);
    if (reportDeadViews(options->paths, "repair")) {
      *exit_code = 1;
      return;
    }
    WorkBeneathViews beneath(env, options->paths, "repair", run.quiet || run.json);
    std::unique_ptr<ConversionSafety> safety =
        run.dry_run ? nullptr : std::make_unique<ConversionSafety>(beneath.env(), dataFolder);
    RepairAction action(beneath.env(), safety.get());
    *exit_code = runFiles(beneath.env(), clock, beneath.paths(), run, action);
  });
}

}  // namespace zephlore::cli
