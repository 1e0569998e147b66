// One run of `compress` or `decompress` over the paths of the command line:
// the walk, the candidate test, the parallel work, the per-file lines, the
// progress line, Ctrl-C, and the summary at the end.
#pragma once

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/files/file_outcome.h"
#include "cli/files/file_pipeline.h"
#include "engine/tree_walker.h"

namespace zephlore::cli {

struct RunOptions {
  Operation op = Operation::kCompress;
  bool recursive = false;
  bool cross_volumes = false;
  int jobs = 0;  // threads; 0: the number of cores
  bool dry_run = false;
  bool json = false;
  bool verbose = false;
  bool quiet = false;
  bool progress = false;  // draw the progress line (a terminal, not quiet, not JSON)
  // Renames the paths the run works on (beneath a view) back into the ones
  // the user gave, for every line, JSON object and message it prints.
  std::function<std::string(const std::string&)> shownAs;
};

// What the run does to one file: the test on the walker's thread, then the
// work on a pipeline thread.
class FileAction {
 public:
  virtual ~FileAction() = default;
  // The uncompressed bytes of a regular file: what the progress line and the
  // choice of engine threads go by.
  virtual uint64_t workSize(const WalkEntry& entry) {
    return static_cast<uint64_t>(entry.st->st_size);
  }
  // The result when the file is left alone (skipped, or failed to be
  // examined); none when it is a candidate. `dry_run`: change nothing.
  virtual std::optional<FileResult> check(const WalkEntry& entry, bool dry_run) = 0;
  // The walk met a temporary file of the engine (a stopped run's, or one in
  // use by a live run).
  virtual void temporarySeen(const WalkEntry& entry) { (void)entry; }
  // Converts a candidate with `workers` engine threads.
  virtual FileResult run(const FilePipeline::Job& job, int workers) = 0;
};

struct RunStreams {
  FILE* out = stdout;
  FILE* err = stderr;
};

// Returns the exit status: 0 all converted or skipped, 1 any failed,
// 128 + signal when interrupted.
int runFiles(Env& env, Clock& clock, const std::vector<std::string>& paths, const RunOptions& options, FileAction& action,
             RunStreams streams = {});

// The text line for one file ("compressed  PATH  1.20 MB -> 300 KB (25.0 %)").
std::string resultLine(const FileResult& result, Operation op);

}  // namespace zephlore::cli
