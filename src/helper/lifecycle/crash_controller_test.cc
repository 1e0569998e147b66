#include "helper/lifecycle/crash_controller.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace zephlore {
namespace {

// Writes what the history save would do, from the thread it runs on, then
// ends the process as the application delegate does.
class SavingDelegate : public KRCrashControllerDelegate {
 public:
  explicit SavingDelegate(bool hang = false) : hang_(hang) {}
  void crashControllerDidReceiveSignal(KRCrashController* controller, int32_t signal) override {
    const bool main = gettid() == getpid();
    // The guard is armed while the crash path runs.
    const unsigned guard = alarm(KRCrashController::kGuardSeconds);
    fprintf(stderr, "pending changes saved on the %s thread for signal %d, guard %s\n",
            main ? "main" : "worker", signal, guard > 0 ? "armed" : "missing");
    if (hang_) {
      raise(SIGALRM);  // the guard's alarm going off while we are stuck
      for (;;) pause();
    }
    controller->forwardToDefaultHandler();
  }

 private:
  bool hang_;
};

// A real fault: a store to a page nobody may touch (not a null pointer, which
// the undefined-behaviour checker would stop first).
void faultOnThisThread() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile int*>(page) = 1;
}

// Called through a pointer the compiler cannot see through, so that the
// recursion is neither turned into a loop nor flagged.
int recurseForever(int depth);
int (*volatile g_recurse)(int) = recurseForever;
int recurseForever(int depth) {
  volatile char frame[512];
  frame[depth % 512] = static_cast<char>(depth);
  return g_recurse(depth + 1) + frame[depth % 512];
}

class CrashController : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  SystemClock clock;
  RunLoop loop{clock};  // the main thread's, in the child that dies
};

TEST_F(CrashController, AFaultOrAWorkersAbortIsSavedOnTheMainThreadThenEndsByTheSameSignal) {
  EXPECT_EXIT(
      {
        static SavingDelegate delegate;
        KRCrashController::startHandlingCrashesWithDelegate(&delegate, loop);
        faultOnThisThread();
      },
      ::testing::KilledBySignal(SIGSEGV), "saved on the main thread for signal 11, guard armed");

  // A stack overflow too: the handler has a stack of its own.
  EXPECT_EXIT(
      {
        static SavingDelegate delegate;
        KRCrashController::startHandlingCrashesWithDelegate(&delegate, loop);
        exit(recurseForever(0));
      },
      ::testing::KilledBySignal(SIGSEGV), "saved on the main thread for signal 11");

  // An abort on a worker is carried to the main thread before the process dies.
  EXPECT_EXIT(
      {
        static SavingDelegate delegate;
        KRCrashController::startHandlingCrashesWithDelegate(&delegate, loop);
        std::thread([] { abort(); }).detach();
        loop.run();
      },
      ::testing::KilledBySignal(SIGABRT), "saved on the main thread for signal 6, guard armed");
}

TEST_F(CrashController, AHangingCrashPathStillEndsByTheSignal) {
#if defined(__SANITIZE_THREAD__)
  // The thread checker holds asynchronous signals (the guard's SIGALRM) until
  // the thread next calls into a library, which a hanging path never does.
  GTEST_SKIP() << "not under the thread checker";
#endif
  EXPECT_EXIT(
      {
        static SavingDelegate delegate(/*hang=*/true);
        KRCrashController::startHandlingCrashesWithDelegate(&delegate, loop);
        faultOnThisThread();
      },
      ::testing::KilledBySignal(SIGSEGV), "guard armed");
}

// Without a delegate a signal is only recorded; the first delegate stays;
// values outside 1..31 are never forwarded.
TEST_F(CrashController, OnlyTheDelegateForwardsAndOnlyRealSignals) {
  EXPECT_EXIT(
      {
        KRCrashController::startHandlingCrashes(loop);
        SavingDelegate late;
        KRCrashController::startHandlingCrashesWithDelegate(&late, loop);
        KRCrashController* controller = KRCrashController::sharedCrashController();
        if (controller->delegate() != nullptr) exit(1);
        controller->setLastSignalReceived(0);
        controller->forwardToDefaultHandler();
        controller->setLastSignalReceived(40);
        controller->forwardToDefaultHandler();
        if (controller->lastSignalReceived() != 40) exit(2);
        exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zephlore
