#include "helper/lifecycle/crash_controller.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "base/log.h"
#include "platform/critical_section.h"

namespace zephlore {
namespace {

std::atomic<KRCrashController*> g_instance{nullptr};
std::mutex g_start_mutex;

// Room for the delegate's save, which runs on this stack after an overflow.
constexpr size_t kAlternateStackBytes = 1 << 20;

// The crash path hung: die as the crash would have.
void onGuardAlarm(int) {
  KRCrashController* controller = g_instance.load();
  const int signal = controller ? controller->lastSignalReceived() : SIGABRT;
  CriticalSection::raiseWithDefaultAction(signal >= 1 && signal <= 31 ? signal : SIGABRT);
  _exit(128 + signal);
}

void armGuard() {
  struct sigaction action {};
  action.sa_handler = onGuardAlarm;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_ONSTACK;
  sigaction(SIGALRM, &action, nullptr);
  alarm(KRCrashController::kGuardSeconds);
}

[[noreturn]] void parkThisThread() {
  for (;;) pause();
}

}  // namespace

void onCrashSignal(int signal, siginfo_t*, void*) {
  KRCrashController* controller = g_instance.load();
  if (!controller) {
    CriticalSection::raiseWithDefaultAction(signal);
    return;
  }
  const bool main = controller->onMainThread();
  // The crash path itself crashed: no second attempt, die of the first signal.
  if (main && controller->delegate_running_.load()) {
    CriticalSection::raiseWithDefaultAction(controller->lastSignalReceived());
  }
  if (!controller->guard_armed_.exchange(true)) armGuard();
  KRCrashController::signalWasReceived(signal);
  if (!main) parkThisThread();
}

KRCrashController::KRCrashController(KRCrashControllerDelegate* delegate, RunLoop& loop)
    : delegate_(delegate), main_tid_(gettid()) {
  if (pipe2(wake_fds_, O_CLOEXEC | O_NONBLOCK) != 0) {
    KRLog("*** Crash handling: no pipe to the main thread: %s", strerror(errno));
  } else {
    loop.watchFd(wake_fds_[0], POLLIN, [this](short) {
      char drained[16];
      while (read(wake_fds_[0], drained, sizeof drained) > 0) {
      }
      notifyDelegate();
    });
  }
}

void KRCrashController::startHandlingCrashes(RunLoop& loop) { startHandlingCrashesWithDelegate(nullptr, loop); }

void KRCrashController::startHandlingCrashesWithDelegate(KRCrashControllerDelegate* delegate, RunLoop& loop) {
  std::lock_guard lock(g_start_mutex);
  if (g_instance.load()) return;
  installAlternateStackOnThisThread();
  g_instance.store(new KRCrashController(delegate, loop));  // never destroyed
  struct sigaction action {};
  action.sa_sigaction = onCrashSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  for (int signal : kCaughtSignals) sigaction(signal, &action, nullptr);
}

KRCrashController* KRCrashController::sharedCrashController() { return g_instance.load(); }

void KRCrashController::signalWasReceived(int signal) {
  if (KRCrashController* controller = g_instance.load()) controller->setLastSignalReceived(signal);
}

void KRCrashController::setLastSignalReceived(int32_t signal) {
  last_signal_.store(signal);
  notifyDelegate();
}

bool KRCrashController::onMainThread() const { return gettid() == main_tid_; }

void KRCrashController::notifyDelegate() {
  if (!onMainThread()) {
    const char wake = 1;
    if (write(wake_fds_[1], &wake, 1) < 0) {
      // Nothing more a signal handler can do; the guard ends the process.
    }
    return;
  }
  if (!delegate_ || delegate_called_.exchange(true)) return;
  delegate_running_.store(true);
  delegate_->crashControllerDidReceiveSignal(this, lastSignalReceived());
  delegate_running_.store(false);
}

void KRCrashController::forwardToDefaultHandler() {
  const int32_t signal = lastSignalReceived();
  if (signal < 1 || signal > 31) return;
  CriticalSection::raiseWhenOutside(signal);
}

void KRCrashController::installAlternateStackOnThisThread() {
  stack_t current;
  if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE) &&
      current.ss_size >= kAlternateStackBytes) {
    return;
  }
  void* memory = mmap(nullptr, kAlternateStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK,
                      -1, 0);
  if (memory == MAP_FAILED) {
    KRLog("*** Crash handling: no alternate signal stack: %s", strerror(errno));
    return;
  }
  stack_t stack{};
  stack.ss_sp = memory;
  stack.ss_size = kAlternateStackBytes;
  if (sigaltstack(&stack, nullptr) != 0) {
    KRLog("*** Crash handling: no alternate signal stack: %s", strerror(errno));
    munmap(memory, kAlternateStackBytes);
  }
}

}  // namespace zephlore
