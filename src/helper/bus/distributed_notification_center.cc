#include "helper/bus/distributed_notification_center.h"

#include <cstdlib>

#include "base/log.h"
#include "platform/session_bus_address.h"

namespace zephlore {

// What an observer is: immutable after creation except for `active`, which
// removeObserver() clears so that notices already posted to the loop are
// dropped.
struct DistributedNotificationCenter::ObserverRecord {
  Handler handler;
  RunLoop* loop;
  std::atomic<bool> active{true};
};

// The user data of one GDBus signal subscription; freed by GDBus through its
// destroy notify once the subscription is gone.
struct DistributedNotificationCenter::Subscription {
  std::shared_ptr<ObserverRecord> record;
};

namespace {

std::optional<std::string> sessionBusProblem() {
  if (sessionBusAddressKnown()) return std::nullopt;
  return std::string("DBUS_SESSION_BUS_ADDRESS is not set and $XDG_RUNTIME_DIR/bus does not exist");
}

UserInfo decodeUserInfo(const std::string& name, GVariant* dict) {
  UserInfo info;
  GVariantIter iter;
  g_variant_iter_init(&iter, dict);
  const gchar* key = nullptr;
  GVariant* value = nullptr;
  std::string ignored;
  while (g_variant_iter_next(&iter, "{&sv}", &key, &value)) {
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
      info[key] = std::string(g_variant_get_string(value, nullptr));
    } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
      gsize count = 0;
      const gchar** strings = g_variant_get_strv(value, &count);
      std::vector<std::string> list(strings, strings + count);
      g_free(strings);
      info[key] = std::move(list);
    } else {
      ignored += ignored.empty() ? "" : ", ";
      ignored += std::string(key) + " (" + g_variant_get_type_string(value) + ")";
    }
    g_variant_unref(value);
  }
  if (!ignored.empty()) {
    KRLog("Notification %s: ignoring user-info values that are neither strings nor arrays of "
          "strings: %s", name.c_str(), ignored.c_str());
  }
  return info;
}

// GVariant strings must be UTF-8; a path that is not would abort inside GLib.
bool isUTF8(const std::string& text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

}  // namespace

DistributedNotificationCenter::DistributedNotificationCenter(std::optional<std::string> address) {
  glib_.run([this, &address] { connect(address); });
}

DistributedNotificationCenter::~DistributedNotificationCenter() {
  // Closed by its owner, not lost: nothing to tell.
  closed_ = true;
  glib_.run([this] {
    if (connection_) g_signal_handlers_disconnect_by_data(connection_, this);
    std::lock_guard lock(mutex_);
    for (auto& [id, entry] : observers_) {
      entry.record->active = false;
      if (connection_) g_dbus_connection_signal_unsubscribe(connection_, entry.subscription);
    }
    observers_.clear();
    for (guint owner : owned_names_) g_bus_unown_name(owner);
    owned_names_.clear();
  });
  if (connection_) g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  // GDBus frees subscriptions and name owners through sources queued on the
  // thread's context: stop() lets them run before the loop ends.
  glib_.stop();
  if (connection_) g_object_unref(connection_);
}

void DistributedNotificationCenter::connect(const std::optional<std::string>& address) {
  std::string target;
  GError* error = nullptr;
  if (address) {
    target = *address;
  } else {
    if (std::optional<std::string> problem = sessionBusProblem()) {
      KRLog("No D-Bus session bus (%s): running without notifications between "
            "zephlore-helper and the zephlore command",
            problem->c_str());
      return;
    }
    gchar* found = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!found) {
      KRLog("No D-Bus session bus (%s): running without notifications between "
            "zephlore-helper and the zephlore command",
            error->message);
      g_error_free(error);
      return;
    }
    target = found;
    g_free(found);
  }
  auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  connection_ =
      g_dbus_connection_new_for_address_sync(target.c_str(), flags, nullptr, nullptr, &error);
  if (!connection_) {
    KRLog("No D-Bus session bus (cannot connect to %s: %s): running without notifications "
          "between zephlore-helper and the zephlore command",
          target.c_str(), error->message);
    g_error_free(error);
    return;
  }
  // Losing the bus must not end the process; it only ends the messages.
  g_dbus_connection_set_exit_on_close(connection_, FALSE);
  g_signal_connect(connection_, "closed", G_CALLBACK(&DistributedNotificationCenter::onClosed),
                   this);
}

void DistributedNotificationCenter::onClosed(GDBusConnection*, gboolean, GError* error,
                                             gpointer self) {
  auto* center = static_cast<DistributedNotificationCenter*>(self);
  if (!center->closed_.exchange(true)) {
    KRLog("Lost the D-Bus session bus%s%s: no more notifications to or from zephlore-helper",
          error ? ": " : "", error ? error->message : "");
    std::function<void()> handler;
    {
      std::lock_guard lock(center->mutex_);
      handler = center->lost_handler_;
    }
    if (handler) handler();
  }
}

void DistributedNotificationCenter::setConnectionLostHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  lost_handler_ = std::move(handler);
}

bool DistributedNotificationCenter::isConnected() const {
  return connection_ != nullptr && !closed_.load();
}

void DistributedNotificationCenter::onSignal(GDBusConnection*, const gchar* sender, const gchar*,
                                             const gchar*, const gchar*, GVariant* parameters,
                                             gpointer data) {
  auto* subscription = static_cast<Subscription*>(data);
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE_TUPLE) ||
      g_variant_n_children(parameters) < 1) {
    return;  // arg0 matched, so this cannot happen; be safe anyway
  }
  Notification note;
  GVariant* name = g_variant_get_child_value(parameters, 0);
  if (g_variant_is_of_type(name, G_VARIANT_TYPE_STRING)) {
    note.name = g_variant_get_string(name, nullptr);
  }
  g_variant_unref(name);
  // Be lenient with hand-made senders: take the name and whatever userInfo
  // can be read, and say once what was wrong with the rest.
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sa{sv}b)"))) {
    KRLog("Notification %s from %s has the arguments %s instead of (sa{sv}b); reading what fits",
          note.name.c_str(), sender ? sender : "?", g_variant_get_type_string(parameters));
  }
  if (g_variant_n_children(parameters) >= 2) {
    GVariant* info = g_variant_get_child_value(parameters, 1);
    if (g_variant_is_of_type(info, G_VARIANT_TYPE("a{sv}"))) {
      note.userInfo = decodeUserInfo(note.name, info);
    }
    g_variant_unref(info);
  }
  std::shared_ptr<ObserverRecord> record = subscription->record;
  if (!record->active) return;
  record->loop->post([record, note = std::move(note)] {
    if (record->active) record->handler(note);
  });
}

DistributedNotificationCenter::ObserverId DistributedNotificationCenter::addObserver(
    const std::string& name, Handler handler, RunLoop& loop) {
  auto record = std::make_shared<ObserverRecord>();
  record->handler = std::move(handler);
  record->loop = &loop;
  ObserverId id;
  {
    std::lock_guard lock(mutex_);
    id = next_id_++;
  }
  if (!isConnected() || !isUTF8(name)) {
    std::lock_guard lock(mutex_);
    observers_[id] = ObserverEntry{record, 0};
    return id;
  }
  // Subscribing on the GLib thread makes its context the one that receives
  // the signals.
  glib_.run([this, &name, &record, id] {
    auto* subscription = new Subscription{record};
    guint handle = g_dbus_connection_signal_subscribe(
        connection_, nullptr, kInterface, kSignalName, kObjectPath, name.c_str(),
        G_DBUS_SIGNAL_FLAGS_NONE, &DistributedNotificationCenter::onSignal, subscription,
        [](gpointer data) { delete static_cast<Subscription*>(data); });
    std::lock_guard lock(mutex_);
    observers_[id] = ObserverEntry{record, handle};
  });
  // The bus handles one connection's messages in order: once it answers a
  // call sent after the match rule, the rule is in place.
  if (GVariant* reply = callBus("GetId", nullptr, "(s)")) g_variant_unref(reply);
  return id;
}

void DistributedNotificationCenter::removeObserver(ObserverId id) {
  ObserverEntry entry;
  {
    std::lock_guard lock(mutex_);
    auto it = observers_.find(id);
    if (it == observers_.end()) return;
    entry = it->second;
    observers_.erase(it);
  }
  entry.record->active = false;
  if (connection_ && entry.subscription != 0) {
    g_dbus_connection_signal_unsubscribe(connection_, entry.subscription);
  }
}

void DistributedNotificationCenter::postNotificationName(const std::string& name) {
  postNotificationName(name, {}, false);
}

void DistributedNotificationCenter::postNotificationName(const std::string& name,
                                                         const UserInfo& userInfo,
                                                         bool deliverImmediately) {
  if (!isConnected()) return;
  if (!isUTF8(name)) {
    KRLog("Not posting a notification whose name is not UTF-8 text");
    return;
  }
  GVariantBuilder info;
  g_variant_builder_init(&info, G_VARIANT_TYPE("a{sv}"));
  for (const auto& [key, value] : userInfo) {
    bool fits = isUTF8(key);
    if (const auto* text = std::get_if<std::string>(&value)) {
      if (fits && isUTF8(*text)) {
        g_variant_builder_add(&info, "{sv}", key.c_str(), g_variant_new_string(text->c_str()));
        continue;
      }
    } else if (const auto* list = std::get_if<std::vector<std::string>>(&value)) {
      std::vector<const gchar*> strings;
      for (const std::string& item : *list) {
        fits = fits && isUTF8(item);
        strings.push_back(item.c_str());
      }
      if (fits) {
        g_variant_builder_add(&info, "{sv}", key.c_str(),
                              g_variant_new_strv(strings.data(), static_cast<gssize>(strings.size())));
        continue;
      }
    }
    // Numbers, and text that is not UTF-8, are not part of the wire format.
    KRLog("Notification %s: user-info value %s cannot travel (only UTF-8 strings and arrays of "
          "them do); left out", name.c_str(), isUTF8(key) ? key.c_str() : "?");
  }
  GVariant* parameters =
      g_variant_new("(sa{sv}b)", name.c_str(), &info, deliverImmediately ? TRUE : FALSE);
  GError* error = nullptr;
  if (!g_dbus_connection_emit_signal(connection_, nullptr, kObjectPath, kInterface, kSignalName,
                                     parameters, &error)) {
    if (!post_failure_logged_.exchange(true)) {
      KRLog("Could not post notification %s: %s", name.c_str(), error->message);
    }
    g_error_free(error);
  }
}

bool DistributedNotificationCenter::flush() {
  if (!isConnected()) return false;
  GError* error = nullptr;
  if (!g_dbus_connection_flush_sync(connection_, nullptr, &error)) {
    KRLog("Could not deliver notifications to the session bus: %s", error->message);
    g_error_free(error);
    return false;
  }
  return true;
}

void DistributedNotificationCenter::ownName(const std::string& busName) {
  if (!isConnected()) return;
  glib_.run([this, &busName] {
    guint owner = g_bus_own_name_on_connection(connection_, busName.c_str(),
                                               G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr,
                                               nullptr, nullptr);
    std::lock_guard lock(mutex_);
    owned_names_.push_back(owner);
  });
}

void DistributedNotificationCenter::releaseNames() {
  if (!isConnected()) return;
  glib_.run([this] {
    std::lock_guard lock(mutex_);
    // Sends ReleaseName and waits for the bus's answer.
    for (guint owner : owned_names_) g_bus_unown_name(owner);
    owned_names_.clear();
  });
}

void DistributedNotificationCenter::releaseName(const std::string& busName) {
  if (GVariant* reply = callBus("ReleaseName", g_variant_new("(s)", busName.c_str()), "(u)", true)) {
    g_variant_unref(reply);
  }
}

GVariant* DistributedNotificationCenter::callBus(const char* method, GVariant* parameters,
                                                 const char* replyType, bool quietIfNoOwner) {
  if (!isConnected()) {
    if (parameters) g_variant_unref(g_variant_ref_sink(parameters));
    return nullptr;
  }
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
      parameters, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
  if (!reply) {
    gchar* remote = g_dbus_error_get_remote_error(error);
    bool no_owner = remote && g_strcmp0(remote, "org.freedesktop.DBus.Error.NameHasNoOwner") == 0;
    if (!(quietIfNoOwner && no_owner)) {
      KRLog("D-Bus call %s failed: %s", method, error->message);
    }
    g_free(remote);
    g_error_free(error);
  }
  return reply;
}

int DistributedNotificationCenter::queuedOwnerCount(const std::string& busName) {
  if (!isConnected() || !g_dbus_is_name(busName.c_str())) return -1;
  GVariant* reply =
      callBus("ListQueuedOwners", g_variant_new("(s)", busName.c_str()), "(as)", true);
  if (!reply) return isConnected() ? 0 : -1;
  GVariant* owners = g_variant_get_child_value(reply, 0);
  int count = static_cast<int>(g_variant_n_children(owners));
  g_variant_unref(owners);
  g_variant_unref(reply);
  return count;
}

bool DistributedNotificationCenter::nameHasOwner(const std::string& busName) {
  if (!isConnected() || !g_dbus_is_name(busName.c_str())) return false;
  GVariant* reply = callBus("NameHasOwner", g_variant_new("(s)", busName.c_str()), "(b)");
  if (!reply) return false;
  gboolean has = FALSE;
  g_variant_get(reply, "(b)", &has);
  g_variant_unref(reply);
  return has;
}

}  // namespace zephlore
