#include "pane/helper_contact.h"

#include <vector>

#include "helper/lifecycle/updater.h"
#include "platform/programs.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"
#include "protocol/program_names.h"

namespace zephlore::pane {
namespace {

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
  const std::string helper = findProgram(thisProgramFolder(), kHelperProgram);
  if (helper.empty()) {
    *problem = "zephlore-helper is not running and was found neither beside zephlore nor on PATH";
    return false;
  }
  if (std::string why; !startProgram({helper}, &why)) {
    *problem = "could not start " + helper + ": " + why;
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
