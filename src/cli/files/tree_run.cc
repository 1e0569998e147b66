#include "cli/files/tree_run.h"

#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "base/clock.h"
#include "base/util.h"
#include "cli/files/display_name.h"
#include "cli/files/file_command_parts.h"
#include "cli/files/interrupt.h"
#include "cli/files/json_report.h"
#include "cli/files/progress_line.h"
#include "cli/files/run_summary.h"

namespace zephlore::cli {
namespace {

// A deep tree holds one descriptor per level, and each file in flight a few:
// lift the soft limit to the hard one.
void raiseOpenFileLimit() {
  struct rlimit rl;
  if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
  }
}

// Counts the regular files and bytes ahead of the work, for the progress
// line's totals. Only lstat, no attribute reads: it runs well ahead.
class CountingVisitor : public WalkVisitor {
 public:
  CountingVisitor(ProgressLine& progress, FileAction& action) : progress_(progress), action_(action) {}
  void visit(const WalkEntry& entry, WalkSkip) override {
    if (S_ISREG(entry.st->st_mode)) progress_.addTotal(1, action_.workSize(entry));
  }
  void walkError(std::string_view, int, const char*, bool) override {}

 private:
  ProgressLine& progress_;
  FileAction& action_;
};

class RunVisitor : public WalkVisitor {
 public:
  RunVisitor(const RunOptions& options, FileAction& action, FilePipeline* pipeline)
      : options_(options), action_(action), pipeline_(pipeline) {}

  void visit(const WalkEntry& entry, WalkSkip skip) override {
    const bool regular = S_ISREG(entry.st->st_mode);
    const uint64_t size = regular ? static_cast<uint64_t>(entry.st->st_size) : 0;
    const uint64_t work = regular ? action_.workSize(entry) : 0;
    FileResult r;
    if (skip == WalkSkip::kEngineTemporary && !options_.dry_run) action_.temporarySeen(entry);
    if (skip != WalkSkip::kNone) {
      r = skipped(std::string(entry.path), skip == WalkSkip::kDirectory        ? SkipReason::kDirectory
                                     : skip == WalkSkip::kEngineTemporary ? SkipReason::kEngineTemporary
                                                                          : SkipReason::kOtherVolume,
                  size, entry.named);
    } else if (std::optional<FileResult> decided = action_.check(entry, options_.dry_run)) {
      r = std::move(*decided);
      r.named = entry.named;
    } else if (options_.dry_run) {
      r.path = std::string(entry.path);
      r.outcome = Outcome::kWouldConvert;
      r.size_before = r.size_after = work;
      r.named = entry.named;
    } else {
      // A Ctrl-C while waiting for a free slot leaves this file alone.
      pipeline_->submit({std::string(entry.path), work, entry.named}, &InterruptHandler::stopFlag());
      return;
    }
    r.regular = regular;
    r.work_bytes = work;
    pipeline_->report(r);
  }

  void walkError(std::string_view path, int err, const char* what, bool named) override {
    if (err == ENOENT && !named) {
      // Gone between the listing of its folder and the look at it.
      pipeline_->report(skipped(std::string(path), SkipReason::kVanished, 0, false));
      return;
    }
    pipeline_->report(failed(std::string(path), posixError(err, std::string("cannot ") + what), 0, named));
  }

 private:
  const RunOptions& options_;
  FileAction& action_;
  FilePipeline* pipeline_;
};

}  // namespace

std::string resultLine(const FileResult& r, Operation op) {
  std::string line = outcomeKey(r.outcome, op);
  line.resize(std::max<size_t>(line.size(), 14), ' ');
  line += escapeForTerminal(r.path);
  switch (r.outcome) {
    case Outcome::kConverted:
      line += "  " + KRUtil::getPrettySize(r.size_before) + " -> " + KRUtil::getPrettySize(r.size_after);
      if (op == Operation::kCompress) line += " (" + percent(r.size_after, r.size_before) + ")";
      break;
    case Outcome::kWouldConvert:
      line += "  " + KRUtil::getPrettySize(r.size_before);
      break;
    case Outcome::kSkipped:
      line += std::string("  (") + skipReasonText(r.reason) + ")";
      break;
    case Outcome::kFailed:
      line += "  " + escapeForTerminal(r.error.describe());
      break;
  }
  return line + "\n";
}

int runFiles(Env& env, Clock& clock, const std::vector<std::string>& paths, const RunOptions& given, FileAction& action,
             RunStreams streams) {
  RunOptions options = given;
  if (options.jobs <= 0) options.jobs = defaultJobs();
  raiseOpenFileLimit();
  InterruptHandler interrupt;
  const std::atomic<bool>& stop = InterruptHandler::stopFlag();
  const TimePoint started = clock.now();
  RunSummary summary(options.op, options.dry_run);

  std::unique_ptr<ProgressLine> progress;
  std::thread counter;
  std::atomic<bool> counter_stop{false};
  const WalkOptions walk_options{options.recursive, options.cross_volumes};
  if (options.progress) {
    progress = std::make_unique<ProgressLine>(streams.err, clock);
    progress->start();
    counter = std::thread([&] {
      CountingVisitor visitor(*progress, action);
      TreeWalker walker(env, walk_options, &counter_stop);
      for (const std::string& path : paths) walker.walk(path, visitor);
      progress->setTotalsFinal();
    });
  }

  auto emit = [&](FILE* stream, const std::string& text) {
    if (progress) {
      progress->printAbove(stream, text);
    } else {
      fputs(text.c_str(), stream);
      fflush(stream);
    }
  };

  auto sink = [&](const FileResult& worked) {
    FileResult r = worked;
    if (options.shownAs) {
      r.path = options.shownAs(r.path);
      r.error.message = options.shownAs(r.error.message);
    }
    summary.add(r);
    if (progress && r.regular) progress->addDone(1, r.work_bytes);
    if (options.json) {
      if (options.verbose) emit(streams.out, dumpLine(fileJson(r, options.op)) + "\n");
      return;
    }
    const bool failure = r.outcome == Outcome::kFailed;
    const bool show = failure || (!options.quiet && (options.verbose || r.named));
    if (show) emit(failure ? streams.err : streams.out, resultLine(r, options.op));
  };

  {
    auto work = [&](const FilePipeline::Job& job, int workers) {
      FileResult r = action.run(job, workers);
      r.named = job.named;
      r.regular = true;
      r.work_bytes = job.size;
      return r;
    };
    FilePipeline pipeline(options.jobs, work, sink);
    RunVisitor visitor(options, action, &pipeline);
    TreeWalker walker(env, walk_options, &stop);
    for (const std::string& path : paths) {
      if (stop.load()) break;
      walker.walk(path, visitor);
    }
    pipeline.finish();
  }
  counter_stop.store(true);
  if (counter.joinable()) counter.join();
  if (progress) progress->stop();

  const bool interrupted = stop.load();
  const Duration elapsed = clock.now() - started;
  if (options.json) {
    nlohmann::ordered_json report = summaryJson(summary, elapsed, interrupted);
    report["jobs"] = options.jobs;
    emit(streams.out, dumpLine(report) + "\n");
  } else if (!options.quiet || interrupted) {
    const uint64_t seen = summary.converted() + summary.wouldConvert() + summary.skipped() + summary.failed();
    const bool walked_tree = options.recursive;
    if (seen > 1 || walked_tree || interrupted) emit(streams.out, summary.table(elapsed, interrupted));
  }
  if (interrupted) return InterruptHandler::exitStatus();
  // A report that could not be written (a full disk) is a failure too.
  const int err = fflush(streams.out) != 0 ? errno : ferror(streams.out) ? EIO : 0;
  if (err != 0) {
    fprintf(streams.err, "zephlore: cannot write the report: %s\n", strerror(err));
    return 1;
  }
  return summary.failed() > 0 ? 1 : 0;
}

}  // namespace zephlore::cli
