#include "pane/helper_status.h"

#include <sstream>

#include "protocol/bus_names.h"

namespace zephlore::pane {
namespace {

using namespace status_names;

bool helperIsAbsent(const GError* error) {
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
}

// A helper owns its bus name from its first moments, and publishes its
// status object only once it has started its parts.
bool objectNotYetPublished(const GError* error) {
  return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_INTERFACE) ||
         g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD);
}

LiveStatus decode(GVariant* all) {
  LiveStatus s;
  GVariant* dict = g_variant_get_child_value(all, 0);
  g_variant_lookup(dict, kStatusValue, "i", &s.value);
  const gchar* text = nullptr;
  if (g_variant_lookup(dict, kStatusText, "&s", &text)) s.text = text;
  gboolean flag = FALSE;
  if (g_variant_lookup(dict, kPaused, "b", &flag)) s.paused = flag;
  if (g_variant_lookup(dict, kActive, "b", &flag)) s.active = flag;
  guint64 number = 0;
  if (g_variant_lookup(dict, kTotalSavings, "t", &number)) s.savings = number;
  if (g_variant_lookup(dict, kQueuedFiles, "t", &number)) s.queued = number;
  if (g_variant_lookup(dict, kFileInProcess, "&s", &text)) s.file = text;
  if (g_variant_lookup(dict, kWaiting, "&s", &text)) s.waiting = text;
  if (g_variant_lookup(dict, kViews, "&s", &text)) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty()) s.views.push_back(line);
    }
  }
  g_variant_unref(dict);
  return s;
}

}  // namespace

StatusReading readLiveStatus(GDBusConnection* connection, int timeout_ms) {
  StatusReading reading;
  if (!connection) {
    reading.absent = true;
    return reading;
  }
  GError* error = nullptr;
  GVariant* all = g_dbus_connection_call_sync(connection, kHelperBusName, kObjectPath,
                                              "org.freedesktop.DBus.Properties", "GetAll",
                                              g_variant_new("(s)", kInterface), G_VARIANT_TYPE("(a{sv})"),
                                              G_DBUS_CALL_FLAGS_NO_AUTO_START, timeout_ms, nullptr, &error);
  if (!all) {
    reading.absent = helperIsAbsent(error);
    reading.timedOut = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
    reading.starting = objectNotYetPublished(error);
    reading.problem = error->message;
    g_error_free(error);
    return reading;
  }
  reading.live = decode(all);
  g_variant_unref(all);
  return reading;
}

bool callStatusMethod(GDBusConnection* connection, const char* method, int timeout_ms, bool* absent,
                      std::string* problem) {
  *absent = connection == nullptr;
  if (!connection) return false;
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(connection, kHelperBusName, kObjectPath, kInterface, method, nullptr,
                                                G_VARIANT_TYPE("()"), G_DBUS_CALL_FLAGS_NO_AUTO_START, timeout_ms,
                                                nullptr, &error);
  if (!reply) {
    *absent = helperIsAbsent(error);
    *problem = error->message;
    g_error_free(error);
    return false;
  }
  g_variant_unref(reply);
  return true;
}

uint32_t helperProcessId(GDBusConnection* connection, int timeout_ms) {
  if (!connection) return 0;
  GVariant* reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
      "GetConnectionUnixProcessID", g_variant_new("(s)", kHelperBusName), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, nullptr);
  if (!reply) return 0;
  uint32_t pid = 0;
  g_variant_get(reply, "(u)", &pid);
  g_variant_unref(reply);
  return pid;
}

}  // namespace zephlore::pane
