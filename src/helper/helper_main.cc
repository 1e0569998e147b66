// zephlore-helper: the background helper. Placeholder entry point; the
// lifecycle class takes over as it is built.
#include <poll.h>
#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

#include "base/log.h"
#include "base/run_loop.h"

int main() {
  using namespace zephlore;
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGTERM);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  int sfd = signalfd(-1, &mask, SFD_CLOEXEC);
  RunLoop& loop = RunLoop::main();
  loop.watchFd(sfd, POLLIN, [&](short) { loop.stop(); });
  KRLog("ZephloreHelper starting");
  loop.run();
  KRLog("ZephloreHelper quitting");
  return 0;
}
