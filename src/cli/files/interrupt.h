// Ctrl-C during a run. The first SIGINT (or SIGTERM) asks the run to stop
// taking new files; files in flight are finished whole and the summary so far
// is printed. A second one quits at once, but never while a file is inside
// its critical section (the moment its compressed copy is swapped in): then
// the process quits as soon as the last such section ends (the engine
// brackets each swap; see platform/critical_section.h).
#pragma once

#include <atomic>

namespace zephlore::cli {

class InterruptHandler {
 public:
  // Installs the handlers; the previous ones come back on destruction.
  InterruptHandler();
  ~InterruptHandler();
  InterruptHandler(const InterruptHandler&) = delete;
  InterruptHandler& operator=(const InterruptHandler&) = delete;

  // Becomes true at the first signal; a walk polls it.
  static const std::atomic<bool>& stopFlag();
  static bool requested() { return stopFlag().load(); }
  // The exit status for an interrupted run: 128 + the signal's number.
  static int exitStatus();
};

}  // namespace zephlore::cli
