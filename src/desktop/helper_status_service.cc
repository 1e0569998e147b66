#include "desktop/helper_status_service.h"

#include <cstring>

#include "base/log.h"
#include "protocol/bus_names.h"

namespace zephlore {
namespace {

using namespace status_names;

constexpr const char* kAnnounceKey = "announce";

constexpr const char* kIntrospection =
    "<node>"
    "  <interface name='com.quorvane.ZephloreHelper'>"
    "    <method name='Pause'/>"
    "    <method name='Resume'/>"
    "    <property name='StatusValue' type='i' access='read'/>"
    "    <property name='StatusText' type='s' access='read'/>"
    "    <property name='Paused' type='b' access='read'/>"
    "    <property name='Active' type='b' access='read'/>"
    "    <property name='TotalSavings' type='t' access='read'/>"
    "    <property name='QueuedFiles' type='t' access='read'/>"
    "    <property name='FileInProcess' type='s' access='read'/>"
    "    <property name='Views' type='s' access='read'/>"
    "    <property name='Waiting' type='s' access='read'/>"
    "  </interface>"
    "</node>";

GDBusInterfaceInfo* interfaceInfo() {
  static GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);  // never freed
  return node->interfaces[0];
}

// Paths need not be UTF-8; a D-Bus string must be (GLib aborts otherwise).
GVariant* textVariant(const std::string& text) {
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
    return g_variant_new_string(text.c_str());
  }
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  GVariant* value = g_variant_new_string(valid);
  g_free(valid);
  return value;
}

GVariant* toVariant(int32_t v) { return g_variant_new_int32(v); }
GVariant* toVariant(bool v) { return g_variant_new_boolean(v); }
GVariant* toVariant(uint64_t v) { return g_variant_new_uint64(v); }
GVariant* toVariant(const std::string& v) { return textVariant(v); }

}  // namespace

KRHelperStatusService::KRHelperStatusService(GDBusConnection* connection, RunLoop& loop, GlibThread& thread)
    : loop_(loop), glib_(thread) {
  if (!connection) return;
  connection_ = G_DBUS_CONNECTION(g_object_ref(connection));
  // Registered from our thread, so that its calls are served there.
  runOnThread([this] {
    static const GDBusInterfaceVTable vtable = {onMethodCall, onGetProperty, nullptr, {}};
    GError* error = nullptr;
    registration_ = g_dbus_connection_register_object(connection_, kObjectPath, interfaceInfo(), &vtable, this,
                                                      nullptr, &error);
    if (!registration_) {
      KRLog("Could not publish the helper's status on the bus: %s", error->message);
      g_error_free(error);
    }
  });
}

KRHelperStatusService::~KRHelperStatusService() {
  loop_.cancelPerform(this, kAnnounceKey);
  if (!connection_) return;
  runOnThread([this] {
    if (registration_) g_dbus_connection_unregister_object(connection_, registration_);
    registration_ = 0;
  });
  g_object_unref(connection_);
}

void KRHelperStatusService::runOnThread(const std::function<void()>& fn) { glib_.run(fn); }

template <typename T>
void KRHelperStatusService::change(T HelperStatus::*field, const T& value, const char* property) {
  std::lock_guard lock(mutex_);
  if (status_.*field == value) return;
  status_.*field = value;
  if (!connection_) return;
  pending_.insert(property);
  announceLocked();
}

void KRHelperStatusService::announceLocked() {
  if (announcementScheduled_) return;
  announcementScheduled_ = true;
  const TimePoint now = loop_.clock().now();
  Duration wait = Duration::zero();
  if (lastAnnouncement_ && now < *lastAnnouncement_ + seconds(kAnnounceInterval)) {
    wait = *lastAnnouncement_ + seconds(kAnnounceInterval) - now;
  }
  // Even "at once" goes through the loop: the setter's caller may hold locks
  // of its own, and the loop's thread keeps the announcements in order.
  loop_.performAfterDelay(this, kAnnounceKey, wait, [this] { announcePending(); });
}

void KRHelperStatusService::announcePending() {
  GVariantBuilder changed, invalidated;
  g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_init(&invalidated, G_VARIANT_TYPE("as"));
  {
    std::lock_guard lock(mutex_);
    announcementScheduled_ = false;
    lastAnnouncement_ = loop_.clock().now();
    for (const char* property : pending_) g_variant_builder_add(&changed, "{sv}", property, propertyValueLocked(property));
    pending_.clear();
  }
  GVariant* parameters = g_variant_new("(sa{sv}as)", kInterface, &changed, &invalidated);
  if (!registration_) {
    g_variant_unref(g_variant_ref_sink(parameters));
    return;
  }
  g_dbus_connection_emit_signal(connection_, nullptr, kObjectPath, "org.freedesktop.DBus.Properties",
                                "PropertiesChanged", parameters, nullptr);
}

void KRHelperStatusService::setStatus(int32_t value, const std::string& text) {
  change(&HelperStatus::statusValue, value, kStatusValue);
  change(&HelperStatus::statusText, text, kStatusText);
}
void KRHelperStatusService::setPaused(bool paused) { change(&HelperStatus::paused, paused, kPaused); }
void KRHelperStatusService::setActive(bool active) { change(&HelperStatus::active, active, kActive); }
void KRHelperStatusService::setTotalSavings(uint64_t bytes) {
  change(&HelperStatus::totalSavings, bytes, kTotalSavings);
}
void KRHelperStatusService::setQueuedFiles(uint64_t count) { change(&HelperStatus::queuedFiles, count, kQueuedFiles); }
void KRHelperStatusService::setFileInProcess(const std::string& path) {
  change(&HelperStatus::fileInProcess, path, kFileInProcess);
}

void KRHelperStatusService::setViews(const std::string& lines) { change(&HelperStatus::views, lines, kViews); }
void KRHelperStatusService::setWaiting(const std::string& reason) {
  change(&HelperStatus::waiting, reason, kWaiting);
}

HelperStatus KRHelperStatusService::status() const {
  std::lock_guard lock(mutex_);
  return status_;
}

void KRHelperStatusService::setPauseHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  pause_ = std::move(handler);
}

void KRHelperStatusService::setResumeHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  resume_ = std::move(handler);
}

GVariant* KRHelperStatusService::propertyValue(const char* property) {
  std::lock_guard lock(mutex_);
  return propertyValueLocked(property);
}

GVariant* KRHelperStatusService::propertyValueLocked(const char* property) {
  if (strcmp(property, kStatusValue) == 0) return toVariant(status_.statusValue);
  if (strcmp(property, kStatusText) == 0) return toVariant(status_.statusText);
  if (strcmp(property, kPaused) == 0) return toVariant(status_.paused);
  if (strcmp(property, kActive) == 0) return toVariant(status_.active);
  if (strcmp(property, kTotalSavings) == 0) return toVariant(status_.totalSavings);
  if (strcmp(property, kQueuedFiles) == 0) return toVariant(status_.queuedFiles);
  if (strcmp(property, kFileInProcess) == 0) return toVariant(status_.fileInProcess);
  if (strcmp(property, kViews) == 0) return toVariant(status_.views);
  if (strcmp(property, kWaiting) == 0) return toVariant(status_.waiting);
  return nullptr;
}

GVariant* KRHelperStatusService::onGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                               const gchar* property, GError** error, gpointer self) {
  GVariant* value = static_cast<KRHelperStatusService*>(self)->propertyValue(property);
  if (!value) g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "No property %s", property);
  return value;
}

void KRHelperStatusService::onMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                         const gchar* method, GVariant*, GDBusMethodInvocation* invocation,
                                         gpointer data) {
  auto* self = static_cast<KRHelperStatusService*>(data);
  std::function<void()> handler;
  {
    std::lock_guard lock(self->mutex_);
    handler = strcmp(method, kPause) == 0 ? self->pause_ : self->resume_;
  }
  // The answer leaves once the handler ran on the main thread, so a client
  // that waits for it sees the helper paused. The GLib thread is not held.
  self->loop_.post([handler, invocation] {
    if (handler) handler();
    g_dbus_method_invocation_return_value(invocation, nullptr);
  });
}

}  // namespace zephlore
