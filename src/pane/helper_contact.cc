#include "pane/helper_contact.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <vector>

#include "helper/lifecycle/updater.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"

namespace zephlore::pane {
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

// Whether the helper answers on its status object. It takes its bus name
// first (that decides between copies) and listens to the command's notices
// only later, just before it exports that object: a notice sent in between
// would be lost.
bool helperListens(GDBusConnection* connection) {
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      connection, kHelperBusName, status_names::kObjectPath, "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", status_names::kInterface, status_names::kStatusValue), G_VARIANT_TYPE("(v)"),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, 1000, nullptr, &error);
  if (error) g_error_free(error);
  if (!reply) return false;
  g_variant_unref(reply);
  return true;
}

}  // namespace

bool HelperContact::ensureHelperRunning(std::string* problem) {
  DistributedNotificationCenter& center = center_;
  if (!center.isConnected()) {
    *problem = "no D-Bus session bus, so zephlore-helper cannot be reached";
    return false;
  }
  Clock& clock = clock_;
  if (center.nameHasOwner(kHelperBusName)) {
    // A helper still starting up: wait until it listens, as for one we start.
    waitUntilHelperListens();
    return true;
  }
  std::string helper = findHelper();
  if (helper.empty()) {
    *problem = "zephlore-helper is not running and was found neither beside zephlore nor on PATH";
    return false;
  }
  if (!startDetached(helper)) {
    *problem = "could not start " + helper;
    return false;
  }
  const TimePoint deadline = clock.now() + seconds(kHelperStartTimeoutSeconds);
  while (!center.nameHasOwner(kHelperBusName)) {
    if (clock.now() >= deadline) {
      *problem = "started " + helper + ", but it did not take its bus name within 5 s";
      return false;
    }
    clock.sleepFor(seconds(0.05));
  }
  waitUntilHelperListens();
  return true;
}

HelperPresence HelperContact::waitUntilHelperListens() {
  DistributedNotificationCenter& center = center_;
  Clock& clock = clock_;
  const TimePoint deadline = clock.now() + seconds(kHelperStartTimeoutSeconds);
  for (;;) {
    if (!center.isConnected() || !center.nameHasOwner(kHelperBusName)) return HelperPresence::kNotRunning;
    if (helperListens(center.connection())) return HelperPresence::kListens;
    if (clock.now() >= deadline) return HelperPresence::kSilent;
    clock.sleepFor(seconds(0.05));
  }
}

void HelperContact::postVersionIfHelperRuns() {
  DistributedNotificationCenter& center = center_;
  if (!center.isConnected() || !center.nameHasOwner(kHelperBusName)) return;
  center.postNotificationName(kVersionNotification, {{kVersionKey, KRUpdater::ownVersion()}},
                              false);
  center.flush();
}

}  // namespace zephlore::pane
