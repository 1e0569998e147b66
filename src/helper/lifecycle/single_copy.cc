#include "helper/lifecycle/single_copy.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/process_table.h"

namespace zephlore {
namespace {

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

std::vector<RunningCopy> runningCopiesOf(Env& env, const std::string& executable) {
  std::vector<RunningCopy> copies;
  const uid_t me = getuid();
  for (const pid_t pid : listProcesses(env)) {
    if (processOwner(env, pid) != me) continue;
    std::optional<std::string> exe = processExecutable(env, pid);
    if (!exe || *exe != executable) continue;
    copies.push_back({pid, processStartTicks(env, pid)});
  }
  return copies;
}

SingleCopyVerdict checkSingleCopy(Env& env, GDBusConnection* connection, const std::string& busName) {
  SingleCopyVerdict verdict;
  // The name first: a copy that loses it counts after the winner exists, so
  // the loser always sees two.
  const std::optional<bool> owner = connection ? becomePrimaryOwner(connection, busName) : std::nullopt;
  verdict.primaryOwner = owner.value_or(false);
  std::optional<std::string> executable = ownExecutable(env);
  // The name decides whatever executable each copy runs (the package's and
  // a build tree's count apart, yet share the user's files).
  if (owner && !*owner) {
    verdict.copies = executable ? std::max<int>(2, static_cast<int>(runningCopiesOf(env, *executable).size())) : 2;
    verdict.terminate = true;
    return verdict;
  }
  if (!executable) {
    KRLog("Cannot tell which program this is: %s", strerror(errno));
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
