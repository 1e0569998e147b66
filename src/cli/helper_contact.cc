#include "cli/helper_contact.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <vector>

#include "base/clock.h"
#include "helper/distributed_notification_center.h"
#include "helper/notification_names.h"
#include "helper/updater.h"

namespace zephlore::cli {
namespace {

constexpr const char* kHelperProgram = "zephlore-helper";

// zephlore-helper beside this program (a build folder, an installation),
// else the first on PATH; "" when there is none.
std::string findHelper() {
  char buf[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (length > 0) {
    std::string self(buf, static_cast<size_t>(length));
    std::string beside = self.substr(0, self.find_last_of('/') + 1) + kHelperProgram;
    if (access(beside.c_str(), X_OK) == 0) return beside;
  }
  const char* path = getenv("PATH");
  std::string dirs = path ? path : "";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = dirs.substr(start, end - start) + "/" + kHelperProgram;
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return "";
}

// Starts `program` in the background, in a session of its own, detached from
// the command's terminal and output.
bool startDetached(const std::string& program) {
  const char* path = program.c_str();
  pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    setsid();
    if (fork() != 0) _exit(0);
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
    }
    execl(path, path, static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

bool ensureHelperRunning(std::string* problem) {
  DistributedNotificationCenter& center = DistributedNotificationCenter::defaultCenter();
  if (!center.isConnected()) {
    *problem = "no D-Bus session bus, so zephlore-helper cannot be reached";
    return false;
  }
  if (center.nameHasOwner(kHelperBusName)) return true;
  std::string helper = findHelper();
  if (helper.empty()) {
    *problem = "zephlore-helper is not running and was found neither beside zephlore nor on PATH";
    return false;
  }
  if (!startDetached(helper)) {
    *problem = "could not start " + helper;
    return false;
  }
  Clock& clock = Clock::shared();
  const TimePoint deadline = clock.now() + seconds(kHelperStartTimeoutSeconds);
  while (!center.nameHasOwner(kHelperBusName)) {
    if (clock.now() >= deadline) {
      *problem = "started " + helper + ", but it did not take its bus name within 5 s";
      return false;
    }
    clock.sleepFor(seconds(0.05));
  }
  return true;
}

void postVersionIfHelperRuns() {
  DistributedNotificationCenter& center = DistributedNotificationCenter::defaultCenter();
  if (!center.isConnected() || !center.nameHasOwner(kHelperBusName)) return;
  center.postNotificationName(kVersionNotification, {{kVersionKey, KRUpdater::ownVersion()}},
                              false);
  center.flush();
}

}  // namespace zephlore::cli
