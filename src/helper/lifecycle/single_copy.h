// Only one copy of the helper runs per user, whatever executable each runs.
// The session bus name decides: a copy that does not become its primary owner
// terminates before touching anything. Without a bus, a new copy counts the
// processes of this user running the same executable, itself included, and
// with 2 or more the oldest stays; copies of other executables then meet at
// the lock of the record of the file in process, and the one without it
// compresses nothing.
#pragma once

#include <gio/gio.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore {

struct RunningCopy {
  int pid = 0;
  unsigned long long start_ticks = 0;  // since boot
};

// Processes of this user whose executable is `executable`, this one included
// when it runs it. An executable replaced on disk since (an upgrade) still
// counts under its path.
std::vector<RunningCopy> runningCopiesOf(Env& env, const std::string& executable);

struct SingleCopyVerdict {
  int copies = 0;              // this one included
  bool primaryOwner = false;   // of the bus name, asked without queueing
  bool terminate = false;
};

// Asks the bus for `busName` (never queueing behind an owner), then counts.
// `connection` may be none (no session bus).
SingleCopyVerdict checkSingleCopy(Env& env, GDBusConnection* connection, const std::string& busName);

}  // namespace zephlore
