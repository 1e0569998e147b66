// zephlore-helper: the background helper's application main. Makes sure it
// is the only copy, makes the one Env and the map of the views, builds the
// application delegate (which builds the Helper), runs its start-up steps
// and then the main run loop until the delegate ends it; SIGINT, SIGTERM and
// SIGHUP take the same orderly path as "krimbleHelperShouldQuit".
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>

#include "base/data_folder.h"
#include "base/error.h"
#include "base/log.h"
#include "base/run_loop.h"
#include "base/sped_up_clock.h"
#include "desktop/app_delegate.h"
#include "helper/bus/distributed_notification_center.h"
#include "helper/lifecycle/single_copy.h"
#include "platform/path_map.h"
#include "platform/path_mapping_env.h"
#include "protocol/bus_names.h"

namespace {

using namespace zephlore;

// Quit signals arrive as readable data on a signalfd that the run loop
// watches, so the quit runs on the main thread like any other event. The mask
// is set before any thread starts, so every thread leaves them to the fd.
int watchQuitSignals(RunLoop& loop, KRAppDelegate& delegate) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGTERM);
  // A closed terminal ends the helper like any quit, not with 129.
  sigaddset(&mask, SIGHUP);
  if (sigprocmask(SIG_BLOCK, &mask, nullptr) != 0) return -1;
  int fd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) return -1;
  loop.watchFd(fd, POLLIN, [fd, &delegate](short) {
    signalfd_siginfo info;
    while (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      KRLog("ZephloreHelper: %s received, quitting", strsignal(static_cast<int>(info.ssi_signo)));
      delegate.terminate();
    }
  });
  return fd;
}

}  // namespace

int main() {
  // Dates and text widths follow the user's locale; numbers keep "1.02 KB".
  setlocale(LC_CTYPE, "");
  setlocale(LC_TIME, "");
  // The helper's one clock (sped up by ZEPHLORE_CLOCK_SPEED, a testing aid)
  // and its main run loop; both live until the process ends, as worker
  // threads may still read them when main returns.
  auto* clock = new ClockFromEnvironment();
  RunLoop& loop = *new RunLoop(clock->clock());
  loop.bindThread();  // start-up runs on the loop's own thread

  // Without a data folder there is nowhere to keep the settings, the history
  // or the record of the file being rewritten, which makes compressing
  // unsafe: say why and stop rather than run doing nothing.
  Error error;
  std::optional<std::string> folder = findDataFolder(&error);
  if (!folder) {
    KRLog("*** ZephloreHelper: no data folder: %s", error.message.c_str());
    return 1;
  }
  KRLog("ZephloreHelper: data folder %s", folder->c_str());

  // The one place the helper takes the process's Env; its parts get it from here.
  Env& env = Env::system();

  // The process's one session-bus connection; it lives until the process
  // ends, as GLib's thread may still deliver on it.
  auto* bus = new DistributedNotificationCenter();

  // One copy only; a second one touches nothing.
  const SingleCopyVerdict verdict = checkSingleCopy(env, bus->connection(), kHelperBusName);
  if (verdict.terminate) {
    KRLog("ZephloreHelper: another copy is already running (%d in all), quitting", verdict.copies);
    return 0;
  }

  // The helper's own file work happens beneath the views over its folders
  // (the views hide the layout it converts); paths stay the shown ones.
  // Everything below lives until the process ends: worker threads may
  // still be finishing a file when main returns.
  auto* views = new PathMap();
  auto* beneathViews = new PathMappingEnv(env, *views);
  auto* delegate = new KRAppDelegate(*beneathViews, env, loop, *views, *folder, *bus);

  const int signal_fd = watchQuitSignals(loop, *delegate);
  if (signal_fd < 0) {
    KRLog("*** ZephloreHelper: cannot watch for quit signals: %s", strerror(errno));
    return 1;
  }
  delegate->awakeFromNib();
  loop.run();
  // Worker threads still hopping to the main thread get an answer now.
  loop.shutdown();
  close(signal_fd);
  KRLog("ZephloreHelper: stopped");
  return 0;
}
