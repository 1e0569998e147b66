#include "platform/critical_section.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace zephlore::CriticalSection {
namespace {

std::atomic<int> g_active{0};
// The end asked for: 0 none, > 0 _exit(value - 1), < 0 die of signal -value.
std::atomic<int> g_pending_end{0};

static_assert(std::atomic<int>::is_always_lock_free, "used from signal handlers");

[[noreturn]] void endNow(int how) {
  if (how < 0) {
    raiseWithDefaultAction(-how);
    // A signal whose default action is to go on (none here): still end.
  }
  _exit(how > 0 ? how - 1 : 128 - how);
}

void endWhenOutside(int how) {
  // The wish is stored before the count is read: a section ending at the same
  // time then sees it and ends the process in our place.
  g_pending_end.store(how);
  if (g_active.load() == 0) endNow(how);
}

}  // namespace

void enter() { g_active.fetch_add(1); }

void leave() {
  if (g_active.fetch_sub(1) == 1) {
    if (int how = g_pending_end.load(); how != 0) endNow(how);
  }
}

int active() { return g_active.load(); }

void exitWhenOutside(int status) { endWhenOutside((status & 0xff) + 1); }

void raiseWhenOutside(int signal) { endWhenOutside(-signal); }

void raiseWithDefaultAction(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  raise(signal);
}

}  // namespace zephlore::CriticalSection
