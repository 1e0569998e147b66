// Depth-first walk of a path: for the command's arguments and for the
// helper's analysis of a folder.
//
// The walk never follows a symbolic link (it is reported as an entry, not
// entered), stays on the volume of the path it started from unless told
// otherwise, and streams: it holds one open directory per level and the
// current path, never a list of the files it has seen. Directories are opened
// relative to their parent (openat), so trees deeper than the platform's path
// limit are walked all the same. Every call goes through the Env the walker
// is given, which may reach the files stored beneath a view: entries carry
// the paths users see and descriptors of the stored tree.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <string>
#include <string_view>

#include "platform/env.h"

namespace zephlore {

// Why the walk does not descend into a directory it visits.
enum class WalkSkip {
  kNone,         // not a directory, or not walked for a reason of the visitor's
  kDirectory,    // the walk is not recursive
  kOtherVolume,  // on another volume than the start
  kEngineTemporary,  // a temporary file of the engine's beside a file being converted
};

struct WalkOptions {
  bool recursive = false;      // descend into directories
  bool cross_volumes = false;  // descend into directories on other volumes
};

// One entry of the walk; valid only during the visitor call.
struct WalkEntry {
  std::string_view path;  // the argument, then "/name" per level
  int dir_fd;             // the directory holding it, or the directory itself with "."
  const char* name;       // its name inside dir_fd (AT_FDCWD: the argument itself)
  const struct stat* st;  // lstat of it
  bool named;             // named on the command line
};

class WalkVisitor {
 public:
  virtual ~WalkVisitor() = default;
  // Every entry the walk does not descend into: files of every type, and
  // directories it leaves alone, with the reason in `skip` (kDirectory when
  // not recursive, kOtherVolume); kNone for anything else.
  virtual void visit(const WalkEntry& entry, WalkSkip skip) = 0;
  // Asked for each directory below the start before it is opened; false
  // leaves it out with everything beneath it, without a visit.
  virtual bool shouldEnter(const WalkEntry&) { return true; }
  // A path that could not be examined or read. `err` is the errno value,
  // `what` the step that failed ("stat", "open directory", "read directory");
  // `named`: the path was named on the command line.
  virtual void walkError(std::string_view path, int err, const char* what, bool named) = 0;
};

class TreeWalker {
 public:
  // `stop`, when given, is polled before every entry: once true, the walk
  // ends without visiting anything more.
  TreeWalker(Env& env, WalkOptions options, const std::atomic<bool>* stop = nullptr)
      : env_(env), options_(options), stop_(stop) {}

  void walk(const std::string& root, WalkVisitor& visitor);

 private:
  bool stopped() const { return stop_ && stop_->load(std::memory_order_relaxed); }
  // Visits the argument itself, which is not walked into.
  void visitArgument(const std::string& root, const struct stat& st, WalkSkip skip, WalkVisitor& visitor);

  Env& env_;
  WalkOptions options_;
  const std::atomic<bool>* stop_;
};

}  // namespace zephlore
