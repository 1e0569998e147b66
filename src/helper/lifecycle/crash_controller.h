// Fatal signals: the helper saves its history and lets a running file swap
// finish before it dies, then dies of the same signal as it would have.
//
// The handler runs on an alternate stack (a stack overflow is caught too) and
// only records the signal. On the main thread the delegate runs at once,
// inside the handler; a secondary thread wakes the main run loop through a
// pipe and parks there (returning would re-run the fault, or let abort() end
// the process before the save). The delegate ends the process with
// forwardToDefaultHandler(). Should the crash path hang, an alarm ends the
// process by the signal's default action after kGuardSeconds.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>

#include "base/run_loop.h"

namespace zephlore {

class KRCrashController;

class KRCrashControllerDelegate {
 public:
  virtual ~KRCrashControllerDelegate() = default;
  // On the main thread; saves what must not be lost, stops the work, then
  // calls controller->forwardToDefaultHandler().
  virtual void crashControllerDidReceiveSignal(KRCrashController* controller, int32_t signal) = 0;
};

class KRCrashController {
 public:
  // The signals caught, in the order installed.
  static constexpr int kCaughtSignals[] = {SIGABRT, SIGILL,  SIGTRAP, SIGFPE, SIGBUS,
                                           SIGSEGV, SIGSYS, SIGXCPU, SIGXFSZ};
  static constexpr unsigned kGuardSeconds = 10;

  // Call on the main thread, whose run loop is `loop`. The first call creates
  // the controller and installs the handlers; later calls change nothing
  // (the delegate is not replaced).
  static void startHandlingCrashes(RunLoop& loop);
  static void startHandlingCrashesWithDelegate(KRCrashControllerDelegate* delegate,
                                               RunLoop& loop);
  // None before startHandlingCrashes*().
  static KRCrashController* sharedCrashController();

  // From the signal handler: records the number on the instance, if any.
  static void signalWasReceived(int signal);

  // On the main thread: hands lastSignalReceived() to the delegate (once per
  // process). Elsewhere: schedules itself on the main thread and returns.
  void notifyDelegate();
  // Ends the process by the default action of lastSignalReceived() (1 to 31;
  // anything else does nothing), once no file is inside its swap.
  void forwardToDefaultHandler();

  KRCrashControllerDelegate* delegate() const { return delegate_; }
  int32_t lastSignalReceived() const { return last_signal_.load(); }
  // Recording a signal is what sets the delegate call going.
  void setLastSignalReceived(int32_t signal);

  // Gives the calling thread an alternate signal stack of its own, so that a
  // stack overflow there reaches the handler too (the main thread gets one
  // when handling starts). Idempotent per thread.
  static void installAlternateStackOnThisThread();

 private:
  KRCrashController(KRCrashControllerDelegate* delegate, RunLoop& loop);

  bool onMainThread() const;

  KRCrashControllerDelegate* const delegate_;
  const int main_tid_;
  int wake_fds_[2] = {-1, -1};
  std::atomic<int32_t> last_signal_{0};
  std::atomic<bool> delegate_called_{false};
  std::atomic<bool> delegate_running_{false};
  std::atomic<bool> guard_armed_{false};

  friend void onCrashSignal(int, siginfo_t*, void*);
};

}  // namespace zephlore
