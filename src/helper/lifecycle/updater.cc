#include "helper/lifecycle/updater.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "base/log.h"
#include "platform/programs.h"

namespace zephlore {

std::string KRUpdater::ownVersion() { return ZEPHLORE_VERSION; }

std::string KRUpdater::installedExecutable() { return thisProgramPath(); }

bool KRUpdater::relaunch() {
  std::string program = installedExecutable();
  if (program.empty()) {
    KRLog("*** Cannot relaunch: the helper's executable is unknown");
    return false;
  }
  return relaunchAfterExit(program, getpid());
}

bool KRUpdater::relaunchAfterExit(const std::string& program, pid_t waitFor) {
  // Everything the children need is made before fork(): other threads may
  // hold the allocator's lock at that moment.
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, waitFor, 0));
  if (pidfd < 0) {
    KRLog("*** Cannot relaunch %s: pidfd_open: %s", program.c_str(), strerror(errno));
    return false;
  }
  const char* path = program.c_str();
  pid_t child = fork();
  if (child < 0) {
    KRLog("*** Cannot relaunch %s: fork: %s", program.c_str(), strerror(errno));
    close(pidfd);
    return false;
  }
  if (child == 0) {
    // A grandchild in a session of its own outlives us and is nobody's zombie.
    setsid();
    // The helper blocks its quit signals for its signalfd; the new copy
    // starts with none blocked.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (fork() != 0) _exit(0);
    struct pollfd wait = {pidfd, POLLIN, 0};
    while (poll(&wait, 1, -1) < 0 && errno == EINTR) {
    }
    close(pidfd);
    execl(path, path, static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pidfd);
  int status = 0;
  waitpid(child, &status, 0);
  KRLog("ZephloreHelper: %s starts again once this process (%d) has ended", program.c_str(),
        static_cast<int>(waitFor));
  return true;
}

}  // namespace zephlore
