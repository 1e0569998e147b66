#include "cli/files/interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "platform/critical_section.h"

namespace zephlore::cli {
namespace {

std::atomic<bool> g_stop{false};
std::atomic<int> g_signal{0};
struct sigaction g_old_int, g_old_term;

void writeStderr(const char* text) {
  ssize_t ignored = write(STDERR_FILENO, text, strlen(text));
  (void)ignored;
}

void onSignal(int sig) {
  if (!g_stop.exchange(true)) {
    g_signal.store(sig);
    writeStderr("\nzephlore: stopping after the files in flight (interrupt again to quit now)\n");
    return;
  }
  CriticalSection::exitWhenOutside(128 + g_signal.load());
}

}  // namespace

InterruptHandler::InterruptHandler() {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;  // reads and writes in flight go on undisturbed
  sigaction(SIGINT, &sa, &g_old_int);
  sigaction(SIGTERM, &sa, &g_old_term);
}

InterruptHandler::~InterruptHandler() {
  sigaction(SIGINT, &g_old_int, nullptr);
  sigaction(SIGTERM, &g_old_term, nullptr);
}

const std::atomic<bool>& InterruptHandler::stopFlag() { return g_stop; }

int InterruptHandler::exitStatus() {
  const int sig = g_signal.load();
  return 128 + (sig != 0 ? sig : SIGINT);
}

}  // namespace zephlore::cli
