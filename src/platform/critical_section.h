// Keeps an abrupt end of the process out of the moment a file is swapped.
//
// The engine brackets each swap (with its record on disk) with enter() and
// leave(). Code that must end the process at once (a second Ctrl-C, a crash
// path) asks for it through endWhenOutside*(): the process ends now when no
// swap is in progress, else as soon as the last one finishes. Everything here
// is async-signal-safe (lock-free atomics, _exit, raise), so signal handlers
// call it directly.
#pragma once

namespace zephlore::CriticalSection {

void enter();
void leave();
// How many threads are inside a critical section now.
int active();

// Ends the process with _exit(status), now or when the last section ends.
void exitWhenOutside(int status);
// Ends the process by the default action of `signal` (core dump included
// where the system makes one), now or when the last section ends.
void raiseWhenOutside(int signal);

// Resets `signal` to its default action, unblocks it in the calling thread
// and raises it: the process dies of it as if never caught.
void raiseWithDefaultAction(int signal);

// RAII bracket.
class Scope {
 public:
  Scope() { enter(); }
  ~Scope() { leave(); }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
};

}  // namespace zephlore::CriticalSection
