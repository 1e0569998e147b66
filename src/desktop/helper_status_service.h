// Publishes the helper's live status on the session bus (see
// protocol/bus_names.h) for desktops without a tray and for scripts. The
// application pushes every change through the setters (any thread). Changes
// are announced with PropertiesChanged at most once per kAnnounceInterval on
// the loop's clock: the first at once, those that follow within the interval
// together at its end, with the values of that moment. A file compressed
// moves several values; a message per value per file flooded the bus while a
// large folder was compressed. Pause and Resume run the
// application's handlers on the main run loop and answer once they ran.
//
// The object lives on the connection that owns the helper's bus name. Its
// calls are served on the desktop parts' GLib thread.
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "base/run_loop.h"
#include "desktop/desktop_thread.h"

namespace zephlore {

struct HelperStatus {
  int32_t statusValue = 0;
  std::string statusText = "Idle";
  bool paused = false;
  bool active = false;
  uint64_t totalSavings = 0;
  uint64_t queuedFiles = 0;
  std::string fileInProcess;  // empty: none
  std::string views;          // one line per view over a folder
  std::string waiting;        // why compression waits, "" when it does not
};

class KRHelperStatusService {
 public:
  static constexpr double kAnnounceInterval = 0.25;

  // `connection` may be none (no bus): the setters then only keep the values.
  KRHelperStatusService(GDBusConnection* connection, RunLoop& loop,
                                 GlibThread& thread = desktopThread());
  ~KRHelperStatusService();
  KRHelperStatusService(const KRHelperStatusService&) = delete;
  KRHelperStatusService& operator=(const KRHelperStatusService&) = delete;

  bool isExported() const { return registration_ != 0; }

  void setStatus(int32_t value, const std::string& text);
  void setPaused(bool paused);
  void setActive(bool active);
  void setTotalSavings(uint64_t bytes);
  void setQueuedFiles(uint64_t count);
  void setFileInProcess(const std::string& path);
  void setViews(const std::string& lines);
  void setWaiting(const std::string& reason);
  HelperStatus status() const;

  // Run on the main run loop when a client calls Pause / Resume.
  void setPauseHandler(std::function<void()> handler);
  void setResumeHandler(std::function<void()> handler);

 private:
  // Changes one value under the lock; announces it when it changed.
  template <typename T>
  void change(T HelperStatus::*field, const T& value, const char* property);
  // Under mutex_: announces now, or at the end of the current interval.
  void announceLocked();
  // Loop's thread: one PropertiesChanged with every value changed since the
  // last announcement.
  void announcePending();
  GVariant* propertyValueLocked(const char* property);
  GVariant* propertyValue(const char* property);
  void callOnLoop(GDBusMethodInvocation* invocation, const std::function<void()>* handler);
  void runOnThread(const std::function<void()>& fn);

  static void onMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                           GVariant*, GDBusMethodInvocation* invocation, gpointer self);
  static GVariant* onGetProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* property,
                                 GError**, gpointer self);

  GDBusConnection* connection_ = nullptr;
  RunLoop& loop_;
  GlibThread& glib_;  // serves the object's calls
  guint registration_ = 0;

  mutable std::mutex mutex_;  // guards the values and the handlers
  HelperStatus status_;
  std::function<void()> pause_;
  std::function<void()> resume_;
  std::set<const char*> pending_;  // properties changed since the last announcement
  bool announcementScheduled_ = false;
  std::optional<TimePoint> lastAnnouncement_;
};

}  // namespace zephlore
