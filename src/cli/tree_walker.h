// Depth-first walk of the paths named on the command line.
//
// The walk never follows a symbolic link (it is reported as an entry, not
// entered), stays on the volume of the path it started from unless told
// otherwise, and streams: it holds one open directory per level and the
// current path, never a list of the files it has seen. Directories are opened
// relative to their parent (openat), so trees deeper than the platform's path
// limit are walked all the same.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <string>
#include <string_view>

#include "cli/file_outcome.h"

namespace zephlore::cli {

struct WalkOptions {
  bool recursive = false;      // descend into directories
  bool cross_volumes = false;  // descend into directories on other volumes
};

// One entry of the walk; valid only during the visitor call.
struct WalkEntry {
  std::string_view path;  // the argument, then "/name" per level
  int dir_fd;             // the directory holding it (AT_FDCWD for an argument)
  const char* name;       // its name inside dir_fd (the argument itself at the top)
  const struct stat* st;  // lstat of it
  bool named;             // named on the command line
};

class WalkVisitor {
 public:
  virtual ~WalkVisitor() = default;
  // Every entry the walk does not descend into: files of every type, and
  // directories it leaves alone, with the reason in `skip` (kDirectory
  // without -r, kOtherVolume); kNone for anything else.
  virtual void visit(const WalkEntry& entry, SkipReason skip) = 0;
  // A path that could not be examined or read. `err` is the errno value,
  // `what` the step that failed ("stat", "open directory", "read directory");
  // `named`: the path was named on the command line.
  virtual void walkError(std::string_view path, int err, const char* what, bool named) = 0;
};

class TreeWalker {
 public:
  // `stop`, when given, is polled before every entry: once true, the walk
  // ends without visiting anything more.
  explicit TreeWalker(WalkOptions options, const std::atomic<bool>* stop = nullptr)
      : options_(options), stop_(stop) {}

  void walk(const std::string& root, WalkVisitor& visitor);

 private:
  bool stopped() const { return stop_ && stop_->load(std::memory_order_relaxed); }

  WalkOptions options_;
  const std::atomic<bool>* stop_;
};

}  // namespace zephlore::cli
