#include "helper/lifecycle/single_copy.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/log.h"

namespace zephlore {
namespace {

constexpr const char* kDeletedSuffix = " (deleted)";

std::optional<std::string> executableOf(const std::string& proc_entry) {
  char target[PATH_MAX];
  ssize_t length = readlink((proc_entry + "/exe").c_str(), target, sizeof target - 1);
  if (length <= 0) return std::nullopt;
  std::string path(target, static_cast<size_t>(length));
  const size_t suffix = strlen(kDeletedSuffix);
  if (path.size() > suffix && path.compare(path.size() - suffix, suffix, kDeletedSuffix) == 0) {
    path.resize(path.size() - suffix);
  }
  return path;
}

// Field 22 of /proc/PID/stat; the command name before it may hold spaces
// and parentheses, so the fields are counted from its last ")".
unsigned long long startTicksOf(const std::string& proc_entry) {
  std::ifstream in(proc_entry + "/stat");
  std::string line;
  std::getline(in, line);
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(line.substr(close + 1));
  std::string field;
  for (int index = 3; index <= 22 && fields >> field; ++index) {
    if (index == 22) return std::strtoull(field.c_str(), nullptr, 10);
  }
  return 0;
}

// RequestName with DO_NOT_QUEUE: whether this connection is the owner; none
// when the bus could not be asked.
std::optional<bool> becomePrimaryOwner(GDBusConnection* connection, const std::string& busName) {
  constexpr guint32 kDoNotQueue = 4;
  constexpr guint32 kPrimaryOwner = 1, kAlreadyOwner = 4;
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", busName.c_str(), kDoNotQueue), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1,
      nullptr, &error);
  if (!reply) {
    KRLog("Could not ask for the bus name %s: %s", busName.c_str(), error->message);
    g_error_free(error);
    return std::nullopt;
  }
  guint32 answer = 0;
  g_variant_get(reply, "(u)", &answer);
  g_variant_unref(reply);
  return answer == kPrimaryOwner || answer == kAlreadyOwner;
}

}  // namespace

std::optional<std::string> ownExecutablePath() { return executableOf("/proc/self"); }

std::vector<RunningCopy> runningCopiesOf(Env& env, const std::string& executable) {
  std::vector<RunningCopy> copies;
  const uid_t me = getuid();
  for (const std::string& name : env.listDirectory("/proc").value_or(std::vector<std::string>{})) {
    if (!isdigit(static_cast<unsigned char>(name[0]))) continue;
    const std::string path = "/proc/" + name;
    struct stat st;
    if (env.lstat(path, &st) != 0 || st.st_uid != me) continue;
    std::optional<std::string> exe = executableOf(path);
    if (!exe || *exe != executable) continue;
    copies.push_back({atoi(name.c_str()), startTicksOf(path)});
  }
  return copies;
}

SingleCopyVerdict checkSingleCopy(Env& env, GDBusConnection* connection, const std::string& busName) {
  SingleCopyVerdict verdict;
  // The name first: a copy that loses it counts after the winner exists, so
  // the loser always sees two.
  const std::optional<bool> owner = connection ? becomePrimaryOwner(connection, busName) : std::nullopt;
  verdict.primaryOwner = owner.value_or(false);
  std::optional<std::string> executable = ownExecutablePath();
  // The name decides whatever executable each copy runs (the package's and
  // a build tree's count apart, yet share the user's files).
  if (owner && !*owner) {
    verdict.copies = executable ? std::max<int>(2, static_cast<int>(runningCopiesOf(env, *executable).size())) : 2;
    verdict.terminate = true;
    return verdict;
  }
  if (!executable) {
    KRLog("Cannot tell which program this is (/proc/self/exe): %s", strerror(errno));
    verdict.copies = 1;
    return verdict;
  }
  const std::vector<RunningCopy> copies = runningCopiesOf(env, *executable);
  verdict.copies = static_cast<int>(copies.size());
  if (verdict.copies < 2 || owner) return verdict;
  // No bus to decide: the oldest copy stays (the lower pid on a tie).
  const int self = getpid();
  RunningCopy mine{self, 0};
  for (const RunningCopy& copy : copies) {
    if (copy.pid == self) mine = copy;
  }
  for (const RunningCopy& copy : copies) {
    if (copy.pid == self) continue;
    if (copy.start_ticks < mine.start_ticks || (copy.start_ticks == mine.start_ticks && copy.pid < self)) {
      verdict.terminate = true;
    }
  }
  return verdict;
}

}  // namespace zephlore
