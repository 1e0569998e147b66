// The status object on a private dbus-daemon under a manual clock: what a
// client watching PropertiesChanged receives while values move quickly.
#include "desktop/helper_status_service.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <vector>

#include "base/clock.h"
#include "helper/bus/glib_thread.h"
#include "protocol/bus_names.h"
#include "testing/scratch_dir.h"
#include "testing/session_bus.h"

namespace zephlore {
namespace {

using Announcement = std::map<std::string, std::string>;  // property -> printed value

GDBusConnection* connect(const std::string& address) {
  return g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
}

// A client that records every PropertiesChanged of the status object.
class Watcher {
 public:
  Watcher(const std::string& address, const std::string& sender) : sender_(sender) {
    thread_.run([&] {
      connection_ = connect(address);
      subscription_ = g_dbus_connection_signal_subscribe(
          connection_, sender_.c_str(), "org.freedesktop.DBus.Properties", "PropertiesChanged",
          status_names::kObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
          +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
              gpointer self) { static_cast<Watcher*>(self)->record(parameters); },
          this, nullptr);
    });
  }
  ~Watcher() {
    thread_.run([&] {
      g_dbus_connection_signal_unsubscribe(connection_, subscription_);
      g_object_unref(connection_);
    });
  }

  // Everything the object sent so far: a round trip to it, then a pass of
  // this thread's loop, which dispatches signals in arrival order.
  std::vector<Announcement> received() {
    GVariant* reply = g_dbus_connection_call_sync(connection_, sender_.c_str(), status_names::kObjectPath,
                                                  "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
    EXPECT_NE(reply, nullptr);
    if (reply) g_variant_unref(reply);
    thread_.run([] {});
    thread_.run([] {});
    std::lock_guard lock(mutex_);
    return announcements_;
  }

 private:
  void record(GVariant* parameters) {
    GVariant* changed = g_variant_get_child_value(parameters, 1);
    Announcement announcement;
    GVariantIter iter;
    g_variant_iter_init(&iter, changed);
    const gchar* name = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_next(&iter, "{&sv}", &name, &value)) {
      gchar* printed = g_variant_print(value, FALSE);
      announcement[name] = printed;
      g_free(printed);
      g_variant_unref(value);
    }
    g_variant_unref(changed);
    std::lock_guard lock(mutex_);
    announcements_.push_back(std::move(announcement));
  }

  std::string sender_;
  GlibThread thread_;
  GDBusConnection* connection_ = nullptr;
  guint subscription_ = 0;
  // Written on thread_, read after run(): GLib's own hand-over is invisible
  // to the thread checker, so a lock of ours orders the two.
  std::mutex mutex_;
  std::vector<Announcement> announcements_;
};

// A file compressed moves the queue and the file in hand: a client hears of
// it at a bounded rate, and always of the last values.
TEST(HelperStatusServiceTest, ChangesAreAnnouncedTogetherAtABoundedRateEndingWithTheLastValues) {
  testkit::ScratchDir scratch;
  testkit::TestSessionBus bus(scratch.path());
  GDBusConnection* connection = connect(bus.address());
  ASSERT_NE(connection, nullptr);
  ManualClock clock;
  RunLoop loop(clock);
  {
    KRHelperStatusService service(connection, loop);
    ASSERT_TRUE(service.isExported());
    Watcher watcher(bus.address(), g_dbus_connection_get_unique_name(connection));

    // The first change goes out at once.
    service.setQueuedFiles(100);
    loop.runUntilIdle();
    ASSERT_EQ(watcher.received(), (std::vector<Announcement>{{{"QueuedFiles", "100"}}}));

    // A burst within the interval: nothing more until it ends, then one
    // message with the values of that moment (the file in hand is back to
    // none, and is told so).
    for (uint64_t left = 99; left >= 90; --left) {
      service.setFileInProcess("/folder/file" + std::to_string(left));
      service.setQueuedFiles(left);
      loop.runUntilIdle();
    }
    service.setFileInProcess("");
    loop.runUntilIdle();
    clock.advance(seconds(KRHelperStatusService::kAnnounceInterval / 2));
    loop.runUntilIdle();
    EXPECT_EQ(watcher.received().size(), 1u);
    clock.advance(seconds(KRHelperStatusService::kAnnounceInterval / 2));
    loop.runUntilIdle();
    std::vector<Announcement> received = watcher.received();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1], (Announcement{{"QueuedFiles", "90"}, {"FileInProcess", "''"}}));
    EXPECT_EQ(service.status().queuedFiles, 90u);

    // An unchanged value is no news; after a quiet interval a change goes
    // out at once again.
    service.setQueuedFiles(90);
    clock.advance(seconds(KRHelperStatusService::kAnnounceInterval * 4));
    loop.runUntilIdle();
    EXPECT_EQ(watcher.received().size(), 2u);
    service.setPaused(true);
    loop.runUntilIdle();
    received = watcher.received();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[2], (Announcement{{"Paused", "true"}}));
  }
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  g_object_unref(connection);
}

}  // namespace
}  // namespace zephlore
