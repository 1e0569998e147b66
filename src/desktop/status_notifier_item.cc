#include "desktop/status_notifier_item.h"

#include <libdbusmenu-glib/client.h>
#include <libdbusmenu-glib/menuitem.h>
#include <libdbusmenu-glib/server.h>
#include <unistd.h>

#include "base/log.h"
#include "helper/settings/resources.h"
#include "platform/env.h"

namespace zephlore {
namespace {

constexpr const char* kItemInterfaceXml = R"xml(
<node>
  <interface name="org.kde.StatusNotifierItem">
    <property name="Category" type="s" access="read"/>
    <property name="Id" type="s" access="read"/>
    <property name="Title" type="s" access="read"/>
    <property name="Status" type="s" access="read"/>
    <property name="IconName" type="s" access="read"/>
    <property name="IconThemePath" type="s" access="read"/>
    <property name="ToolTip" type="(sa(iiay)ss)" access="read"/>
    <property name="ItemIsMenu" type="b" access="read"/>
    <property name="Menu" type="o" access="read"/>
    <method name="ContextMenu"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
    <method name="Activate"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
    <method name="SecondaryActivate"><arg name="x" type="i" direction="in"/><arg name="y" type="i" direction="in"/></method>
    <method name="Scroll"><arg name="delta" type="i" direction="in"/><arg name="orientation" type="s" direction="in"/></method>
    <signal name="NewTitle"/>
    <signal name="NewIcon"/>
    <signal name="NewToolTip"/>
    <signal name="NewStatus"><arg name="status" type="s"/></signal>
  </interface>
</node>)xml";

GDBusInterfaceInfo* itemInterface() {
  static GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kItemInterfaceXml, nullptr);  // never freed
  return node->interfaces[0];
}

// The folder of the SVG images, which trays search for the icon names.
std::string iconFolder() {
  std::string any = resourcePath("icons/menubar-zephlore-normal.svg");
  return any.empty() ? "" : parentDirectory(any);
}

DbusmenuMenuitem* addItem(DbusmenuMenuitem* root, const char* label, bool enabled) {
  DbusmenuMenuitem* item = dbusmenu_menuitem_new();
  dbusmenu_menuitem_property_set(item, DBUSMENU_MENUITEM_PROP_LABEL, label);
  dbusmenu_menuitem_property_set_bool(item, DBUSMENU_MENUITEM_PROP_ENABLED, enabled);
  dbusmenu_menuitem_child_append(root, item);
  g_object_unref(item);  // the root keeps it
  return item;
}

}  // namespace

KRStatusNotifierItem::KRStatusNotifierItem(RunLoop& mainLoop, std::function<void()> togglePause,
                                           std::function<void()> showHistory, GlibThread& thread)
    : mainLoop_(mainLoop),
      thread_(thread),
      togglePause_(std::move(togglePause)),
      showHistory_(std::move(showHistory)),
      iconThemePath_(iconFolder()) {
  thread_.run([this] { startOnBusThread(); });
}

KRStatusNotifierItem::~KRStatusNotifierItem() {
  thread_.run([this] {
    stopOnBusThread();
    if (connection_) g_object_unref(connection_);
    connection_ = nullptr;
  });
}

void KRStatusNotifierItem::startOnBusThread() {
  GError* error = nullptr;
  // libdbusmenu serves the menu on the shared session connection, and the
  // tray looks for the menu where the item is: the item goes there too.
  connection_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (!connection_) {
    KRLog("No status item: no session bus (%s)", error ? error->message : "unknown");
    g_clear_error(&error);
    return;
  }
  // A bus that goes away must not end the helper.
  g_dbus_connection_set_exit_on_close(connection_, FALSE);
  static const GDBusInterfaceVTable vtable = {onMethodCall, onGetProperty, nullptr, {}};
  objectId_ = g_dbus_connection_register_object(connection_, kItemPath, itemInterface(), &vtable, this, nullptr,
                                                &error);
  if (!objectId_) {
    KRLog("No status item: %s", error->message);
    g_clear_error(&error);
    return;
  }
  serviceName_ = "org.kde.StatusNotifierItem-" + std::to_string(getpid()) + "-1";
  nameId_ = g_bus_own_name_on_connection(connection_, serviceName_.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                         nullptr, nullptr, nullptr);
  buildMenuOnBusThread();
  // Registers now if a tray runs, and again whenever one starts. libdbusmenu
  // puts the menu on the bus once its own lookup of the bus returns, which
  // GLib finishes on a worker thread: usually before this low-priority
  // source runs, but not always. A tray that finds no menu yet reads it when
  // it is there.
  watchSource_ = g_idle_add_full(
      G_PRIORITY_LOW,
      +[](gpointer data) {
        auto* self = static_cast<KRStatusNotifierItem*>(data);
        self->watcherWatchId_ = g_bus_watch_name_on_connection(
            self->connection_, kWatcherName, G_BUS_NAME_WATCHER_FLAGS_NONE, onWatcherAppeared, onWatcherVanished, self,
            nullptr);
        self->watchSource_ = 0;
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
}

void KRStatusNotifierItem::stopOnBusThread() {
  if (watchSource_) g_source_remove(watchSource_);
  if (watcherWatchId_) g_bus_unwatch_name(watcherWatchId_);
  if (nameId_) g_bus_unown_name(nameId_);
  if (objectId_) g_dbus_connection_unregister_object(connection_, objectId_);
  if (server_) g_object_unref(server_);
  if (root_) g_object_unref(root_);
  watcherWatchId_ = nameId_ = objectId_ = 0;
  server_ = nullptr;
  root_ = nullptr;
}

void KRStatusNotifierItem::buildMenuOnBusThread() {
  server_ = dbusmenu_server_new(kMenuPath);
  root_ = dbusmenu_menuitem_new();
  const KRStatusMenu initial;
  savingsItem_ = addItem(root_, initial.savingsTitle.c_str(), false);
  statusItem_ = addItem(root_, initial.statusTitle.c_str(), false);
  pauseItem_ = addItem(root_, initial.pauseTitle.c_str(), true);
  DbusmenuMenuitem* separator = dbusmenu_menuitem_new();
  dbusmenu_menuitem_property_set(separator, DBUSMENU_MENUITEM_PROP_TYPE, DBUSMENU_CLIENT_TYPES_SEPARATOR);
  dbusmenu_menuitem_child_append(root_, separator);
  g_object_unref(separator);
  openItem_ = addItem(root_, initial.openTitle.c_str(), true);
  auto onActivated = +[](DbusmenuMenuitem* item, guint, gpointer data) {
    auto* self = static_cast<KRStatusNotifierItem*>(data);
    std::function<void()>& action = item == self->pauseItem_ ? self->togglePause_ : self->showHistory_;
    if (action) self->mainLoop_.post(action);
  };
  g_signal_connect(pauseItem_, DBUSMENU_MENUITEM_SIGNAL_ITEM_ACTIVATED, G_CALLBACK(onActivated), this);
  g_signal_connect(openItem_, DBUSMENU_MENUITEM_SIGNAL_ITEM_ACTIVATED, G_CALLBACK(onActivated), this);
  dbusmenu_server_set_root(server_, root_);
}

void KRStatusNotifierItem::applyMenuOnBusThread(const KRStatusMenu& menu) {
  if (!root_) return;
  dbusmenu_menuitem_property_set(savingsItem_, DBUSMENU_MENUITEM_PROP_LABEL, menu.savingsTitle.c_str());
  dbusmenu_menuitem_property_set(statusItem_, DBUSMENU_MENUITEM_PROP_LABEL, menu.statusTitle.c_str());
  dbusmenu_menuitem_property_set(pauseItem_, DBUSMENU_MENUITEM_PROP_LABEL, menu.pauseTitle.c_str());
  dbusmenu_menuitem_property_set(openItem_, DBUSMENU_MENUITEM_PROP_LABEL, menu.openTitle.c_str());
}

void KRStatusNotifierItem::onWatcherAppeared(GDBusConnection*, const gchar*, const gchar*, gpointer self) {
  static_cast<KRStatusNotifierItem*>(self)->trayPresent_ = true;
  static_cast<KRStatusNotifierItem*>(self)->registerWithWatcher();
}

void KRStatusNotifierItem::onWatcherVanished(GDBusConnection*, const gchar*, gpointer self) {
  static_cast<KRStatusNotifierItem*>(self)->trayPresent_ = false;
}

void KRStatusNotifierItem::registerWithWatcher() {
  g_dbus_connection_call(
      connection_, kWatcherName, "/StatusNotifierWatcher", kWatcherName, "RegisterStatusNotifierItem",
      g_variant_new("(s)", serviceName_.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
      +[](GObject* source, GAsyncResult* result, gpointer) {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        if (reply) {
          g_variant_unref(reply);
        } else {
          KRLog("The tray refused the status item: %s", error->message);
          g_clear_error(&error);
        }
      },
      nullptr);
}

void KRStatusNotifierItem::emit(const char* signal) {
  if (!connection_ || !objectId_) return;
  GVariant* args = std::string(signal) == "NewStatus" ? g_variant_new("(s)", visible_ ? "Active" : "Passive") : nullptr;
  g_dbus_connection_emit_signal(connection_, nullptr, kItemPath, "org.kde.StatusNotifierItem", signal, args, nullptr);
}

void KRStatusNotifierItem::onMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                        const gchar* method, GVariant*, GDBusMethodInvocation* invocation,
                                        gpointer) {
  // The item is a menu: clicks open it on the tray's side; nothing to do here.
  (void)method;
  g_dbus_method_invocation_return_value(invocation, nullptr);
}

GVariant* KRStatusNotifierItem::onGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                              const gchar* property, GError**, gpointer data) {
  auto* self = static_cast<KRStatusNotifierItem*>(data);
  const std::string name = property;
  if (name == "Category") return g_variant_new_string("ApplicationStatus");
  if (name == "Id") return g_variant_new_string("zephlore-helper");
  if (name == "Title") return g_variant_new_string("Zephlore");
  if (name == "Status") return g_variant_new_string(self->visible_ ? "Active" : "Passive");
  if (name == "IconName") {
    std::lock_guard lock(self->iconLock_);
    return g_variant_new_string(self->iconName_.c_str());
  }
  if (name == "IconThemePath") return g_variant_new_string(self->iconThemePath_.c_str());
  if (name == "ItemIsMenu") return g_variant_new_boolean(TRUE);
  if (name == "Menu") return g_variant_new_object_path(kMenuPath);
  if (name == "ToolTip") {
    return g_variant_new("(s@a(iiay)ss)", "", g_variant_new_array(G_VARIANT_TYPE("(iiay)"), nullptr, 0),
                         self->toolTip_.c_str(), "");
  }
  return nullptr;
}

void KRStatusNotifierItem::show(const KRStatusMenu& menu, const std::string& iconName, const std::string& toolTip) {
  {
    std::lock_guard lock(iconLock_);
    iconName_ = iconName;
  }
  thread_.post([this, menu, toolTip] {
    visible_ = true;
    toolTip_ = toolTip;
    applyMenuOnBusThread(menu);
    emit("NewIcon");
    emit("NewToolTip");
    emit("NewStatus");
  });
}

void KRStatusNotifierItem::hide() {
  // A passive item is left out of the tray; the menu stays as it is.
  thread_.post([this] {
    visible_ = false;
    emit("NewStatus");
  });
}

void KRStatusNotifierItem::setIcon(const std::string& iconName) {
  {
    std::lock_guard lock(iconLock_);
    if (iconName_ == iconName) return;
    iconName_ = iconName;
  }
  // A tray that comes later reads the name when the item registers.
  if (!trayPresent_) return;
  thread_.post([this] { emit("NewIcon"); });
}

void KRStatusNotifierItem::setMenu(const KRStatusMenu& menu) {
  thread_.post([this, menu] { applyMenuOnBusThread(menu); });
}

void KRStatusNotifierItem::sync() {
  thread_.run([] {});
}

}  // namespace zephlore
