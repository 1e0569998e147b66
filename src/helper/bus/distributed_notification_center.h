// System-wide named notifications between the processes of one login (the
// helper, the zephlore command, any script), carried on the D-Bus session bus
// so that any program can take part:
//
//   signal  com.quorvane.zephlore.DistributedNotificationCenter.Notification
//   path    /com/quorvane/zephlore/DistributedNotificationCenter
//   args    (s name, a{sv} userInfo, b deliverImmediately)
//
// userInfo values are strings or arrays of strings. Observers match the name
// as arg0 from any sender; each handler runs on the RunLoop its observer names.
//
// A dedicated GLib thread with its own main context owns the connection and
// receives the signals; each one hops to its observer's RunLoop with its userInfo
// already decoded. Without a session bus the center logs one line and carries
// on without messages: posts go nowhere and observers never fire.
#pragma once

#include <gio/gio.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/notification_center.h"
#include "base/run_loop.h"
#include "helper/bus/glib_thread.h"

namespace zephlore {

class DistributedNotificationCenter {
 public:
  using ObserverId = uint64_t;
  using Handler = std::function<void(const Notification&)>;

  static constexpr const char* kInterface = "com.quorvane.zephlore.DistributedNotificationCenter";
  static constexpr const char* kObjectPath = "/com/quorvane/zephlore/DistributedNotificationCenter";
  static constexpr const char* kSignalName = "Notification";

  // A center on the bus at `address` (none: the session bus,
  // DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus). Each program's
  // main makes its one center (it is the connection) and hands it on; a
  // second one stands for a second participant, such as another copy of the
  // helper in a test.
  explicit DistributedNotificationCenter(std::optional<std::string> address = std::nullopt);
  ~DistributedNotificationCenter();
  DistributedNotificationCenter(const DistributedNotificationCenter&) = delete;
  DistributedNotificationCenter& operator=(const DistributedNotificationCenter&) = delete;

  // True when a bus connection was made and has not been lost.
  bool isConnected() const;
  // The connection itself, for this process's other bus users: what they
  // export must live where the helper's name is owned. None without a bus.
  GDBusConnection* connection() const { return connection_; }
  // Called once, on a GLib thread, when the connection is lost (the daemon
  // ended, as it does with the session). Set before the loss can matter.
  void setConnectionLostHandler(std::function<void()> handler);

  // Observes `name` from any sender. `handler` runs on `loop`. When this returns the bus routes the
  // name to us, so a notice posted afterwards by anyone reaches the handler.
  ObserverId addObserver(const std::string& name, Handler handler, RunLoop& loop);
  // Stops delivery, also of notices already on their way to the loop.
  void removeObserver(ObserverId id);

  // Posts `name` with no userInfo, not immediate. Any thread. Never fails
  // visibly: without a bus, or with values that cannot travel (text that is
  // not UTF-8, numbers), the notice or the value is dropped with a log line.
  void postNotificationName(const std::string& name);
  void postNotificationName(const std::string& name, const UserInfo& userInfo,
                            bool deliverImmediately);
  // Blocks until every notice posted so far has left the process. A short-
  // lived process calls it before it exits. False without a bus.
  bool flush();

  // Asks the bus for the well-known `busName` (this process queues behind
  // an earlier owner). Monitors then show a named sender.
  void ownName(const std::string& busName);
  // Gives every owned name back and returns once the bus has done so, so
  // that a copy started next is not queued behind this one.
  void releaseNames();
  // Gives back `busName` however this connection came to own it (also by a
  // plain RequestName) and returns once the bus has done so.
  void releaseName(const std::string& busName);
  // How many connections own or wait for `busName`, this one included once
  // ownName() was called: the number of running copies. -1 without a bus.
  int queuedOwnerCount(const std::string& busName);
  // Whether any process owns `busName` now. False without a bus.
  bool nameHasOwner(const std::string& busName);

 private:
  struct ObserverRecord;
  struct Subscription;

  void connect(const std::optional<std::string>& address);
  static void onSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                       GVariant* parameters, gpointer data);
  static void onClosed(GDBusConnection*, gboolean, GError*, gpointer self);
  // A call to the bus itself; none (and a log line) on failure.
  GVariant* callBus(const char* method, GVariant* parameters, const char* replyType,
                    bool quietIfNoOwner = false);

  GlibThread glib_;  // owns the connection and receives the signals
  GDBusConnection* connection_ = nullptr;  // set once while constructing
  std::atomic<bool> closed_{false};
  std::atomic<bool> post_failure_logged_{false};

  std::mutex mutex_;  // guards everything below
  struct ObserverEntry {
    std::shared_ptr<ObserverRecord> record;
    guint subscription = 0;
  };
  std::map<ObserverId, ObserverEntry> observers_;
  ObserverId next_id_ = 1;
  std::vector<guint> owned_names_;
  std::function<void()> lost_handler_;
};

}  // namespace zephlore
