// The tray item on a private dbus-daemon. CI has no tray, so a small GDBus
// stand-in plays org.kde.StatusNotifierWatcher; the test then reads the menu
// over com.canonical.dbusmenu and clicks it as a tray would.
#include "desktop/status_notifier_item.h"

#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

#include "desktop/control_surface.h"
#include "helper/bus/distributed_notification_center.h"
#include "protocol/notification_names.h"
#include "testing/files.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

constexpr const char* kWatcherXml = R"xml(
<node>
  <interface name="org.kde.StatusNotifierWatcher">
    <method name="RegisterStatusNotifierItem"><arg name="service" type="s" direction="in"/></method>
  </interface>
</node>)xml";

class FakeTrayWatcher {
 public:
  explicit FakeTrayWatcher(const std::string& address) {
    thread_.run([&] {
      connection_ = g_dbus_connection_new_for_address_sync(
          address.c_str(),
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, nullptr);
      node_ = g_dbus_node_info_new_for_xml(kWatcherXml, nullptr);
      static const GDBusInterfaceVTable vtable = {
          +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
              GDBusMethodInvocation* invocation, gpointer self) {
            const gchar* service = nullptr;
            g_variant_get(parameters, "(&s)", &service);
            static_cast<FakeTrayWatcher*>(self)->registered(service);
            g_dbus_method_invocation_return_value(invocation, nullptr);
          },
          nullptr, nullptr, {}};
      g_dbus_connection_register_object(connection_, "/StatusNotifierWatcher", node_->interfaces[0], &vtable, this,
                                        nullptr, nullptr);
    });
    GVariant* reply = call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                           g_variant_new("(su)", KRStatusNotifierItem::kWatcherName, 0u));
    g_variant_unref(reply);
  }
  ~FakeTrayWatcher() {
    thread_.run([&] {
      g_dbus_connection_close_sync(connection_, nullptr, nullptr);
      g_object_unref(connection_);
      g_dbus_node_info_unref(node_);
    });
  }

  std::string waitForItem() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(30), [&] { return !service_.empty(); });
    return service_;
  }

  // A blocking call to another connection; the reply, or none on error
  // (a test failure unless `quiet`).
  GVariant* call(const std::string& destination, const char* path, const char* interface, const char* method,
                 GVariant* parameters, bool quiet = false) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(connection_, destination.c_str(), path, interface, method,
                                                  parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (!reply) {
      if (!quiet) ADD_FAILURE() << method << ": " << error->message;
      g_clear_error(&error);
    }
    return reply;
  }

 private:
  void registered(const std::string& service) {
    std::lock_guard lock(mutex_);
    service_ = service;
    changed_.notify_all();
  }

  GlibThread thread_;
  GDBusConnection* connection_ = nullptr;
  GDBusNodeInfo* node_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string service_;
};

// libdbusmenu puts the menu on the bus once its own lookup of the bus returns
// (finished on a GLib worker thread), which may come after the item has
// registered; a tray reads the menu when it is there. Bounded.
void waitForMenu(FakeTrayWatcher& tray, const std::string& service) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    GVariant* reply = tray.call(service, KRStatusNotifierItem::kMenuPath, "org.freedesktop.DBus.Properties", "Get",
                                g_variant_new("(ss)", "com.canonical.dbusmenu", "Version"), true);
    if (reply) {
      g_variant_unref(reply);
      return;
    }
  }
  ADD_FAILURE() << "the menu never appeared on the bus";
}

// Menu rows as read from GetLayout: id and label of each child of the root.
std::vector<std::pair<int32_t, std::string>> readMenu(FakeTrayWatcher& tray, const std::string& service) {
  const gchar* const noProperties[] = {nullptr};
  GVariant* reply = tray.call(service, KRStatusNotifierItem::kMenuPath, "com.canonical.dbusmenu", "GetLayout",
                              g_variant_new("(ii^as)", 0, -1, noProperties));
  std::vector<std::pair<int32_t, std::string>> rows;
  if (!reply) return rows;
  GVariantIter* children = nullptr;
  g_variant_get(reply, "(u(ia{sv}av))", nullptr, nullptr, nullptr, &children);
  GVariant* child = nullptr;
  while (g_variant_iter_next(children, "v", &child)) {
    int32_t id = 0;
    GVariant* properties = nullptr;
    g_variant_get(child, "(i@a{sv}av)", &id, &properties, nullptr);
    const gchar* label = "";
    g_variant_lookup(properties, "label", "&s", &label);
    rows.emplace_back(id, label);
    g_variant_unref(properties);
    g_variant_unref(child);
  }
  g_variant_iter_free(children);
  g_variant_unref(reply);
  return rows;
}

std::string itemProperty(FakeTrayWatcher& tray, const std::string& service, const char* name) {
  GVariant* reply = tray.call(service, KRStatusNotifierItem::kItemPath, "org.freedesktop.DBus.Properties", "Get",
                              g_variant_new("(ss)", "org.kde.StatusNotifierItem", name));
  if (!reply) return "";
  GVariant* value = nullptr;
  g_variant_get(reply, "(v)", &value);
  std::string text = g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) ? g_variant_get_string(value, nullptr) : "";
  g_variant_unref(value);
  g_variant_unref(reply);
  return text;
}

void click(FakeTrayWatcher& tray, const std::string& service, int32_t id) {
  GVariant* reply = tray.call(service, KRStatusNotifierItem::kMenuPath, "com.canonical.dbusmenu", "Event",
                              g_variant_new("(isvu)", id, "clicked", g_variant_new_int32(0), 0u));
  if (reply) g_variant_unref(reply);
}

TEST(StatusNotifierItemTest, RegistersWithTheTrayShowsTheMenuAndPausesFromIt) {
  testkit::TestHome home;
  testkit::TestSessionBus bus(home.root());
  // A terminal of our own: this machine may have none.
  const std::string bin = home.root() + "/bin";
  mkdir(bin.c_str(), 0755);
  testkit::writeFile(bin + "/x-terminal-emulator", "#!/bin/sh\nexit 0\n");
  chmod((bin + "/x-terminal-emulator").c_str(), 0755);
  // And a preference window of our own, in the folder "Open Zephlore" looks
  // in first (the helper's own, in a real run).
  const std::string programs = home.root() + "/programs";
  mkdir(programs.c_str(), 0755);
  testkit::writeFile(programs + "/zephlore-preferences", "#!/bin/sh\nexit 0\n");
  chmod((programs + "/zephlore-preferences").c_str(), 0755);
  const std::string path = getenv("PATH");
  setenv("PATH", (bin + ":" + path).c_str(), 1);

  DistributedNotificationCenter messages;
  NotificationCenter center;
  KRGrowlBridge notices;
  ManualClock clock;
  RunLoop loop(clock);
  loop.runUntilIdle();  // this thread is the main thread
  KRMenuBarController controller(loop, center, notices);
  bool workPaused = false;
  controller.setWorkPauser([&](bool paused) { workPaused = paused; });
  {
    // No tray yet: the item is simply not shown anywhere.
    KRStatusNotifierItem item(loop, [&] { controller.togglePause(); },
                              [&] { KRControlSurface::showHistory(loop, messages, programs); });
    controller.setView(&item);
    controller.setTotalSavingsSource([] { return uint64_t{1234567}; });
    controller.setVisible(true);
    center.post(kCompressionStartedNotification);
    item.sync();

    FakeTrayWatcher tray(bus.address());
    const std::string service = tray.waitForItem();
    ASSERT_EQ(service, item.serviceName());
    EXPECT_EQ(itemProperty(tray, service, "Status"), "Active");
    EXPECT_EQ(itemProperty(tray, service, "Menu"), "");  // an object path, not a string
    item.sync();
    waitForMenu(tray, service);
    auto rows = readMenu(tray, service);
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows[0].second, "Savings: 1.23 MB");
    EXPECT_EQ(rows[1].second, "Status: Compressing");
    EXPECT_EQ(rows[2].second, "Pause");
    EXPECT_EQ(rows[4].second, "Open Zephlore");

    click(tray, service, rows[2].first);
    loop.runUntil([&] { return workPaused; });
    item.sync();
    EXPECT_EQ(readMenu(tray, service)[2].second, "Resume");
    EXPECT_EQ(readMenu(tray, service)[1].second, "Status: Paused");
    EXPECT_EQ(itemProperty(tray, service, "IconName"), kIconDisabled);

    // "Open Zephlore": the preference window, then the history is asked
    // for. Without the window (none beside, none on PATH), a terminal runs
    // `zephlore folders` instead.
    EXPECT_EQ(KRControlSurface::controlSurfaceCommand(programs),
              std::vector<std::string>{programs + "/zephlore-preferences"});
    setenv("PATH", bin.c_str(), 1);
    std::vector<std::string> command = KRControlSurface::controlSurfaceCommand(bin);
    setenv("PATH", (bin + ":" + path).c_str(), 1);
    ASSERT_EQ(command.size(), 4u);
    EXPECT_EQ(command[0], bin + "/x-terminal-emulator");
    EXPECT_EQ(command[3], "folders");
    bool shown = false;
    auto observer = messages.addObserver(
        kShowHistoryNotification, [&](const Notification&) { shown = true; }, loop);
    click(tray, service, rows[4].first);
    loop.runUntil([&] { return shown; });
    messages.removeObserver(observer);

    controller.setView(nullptr);
  }
}

}  // namespace
}  // namespace zephlore
