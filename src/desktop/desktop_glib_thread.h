// A thread running a GLib main context of its own, for the tray item's D-Bus
// objects (GDBus and libdbusmenu dispatch on the context that was the
// thread's default when an object was made). The helper's run loop is ours,
// not GLib's, so GLib work lives here and hops back with RunLoop::post.
#pragma once

#include <glib.h>

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zephlore {

class DesktopGlibThread {
 public:
  // `globalDefault`: run GLib's global default context rather than one of
  // our own. libdbusmenu handles menu clicks in idle sources it adds there,
  // so the thread serving the menu must run it (only one thread can).
  explicit DesktopGlibThread(bool globalDefault = false);
  // Runs what is still queued, then ends the thread.
  ~DesktopGlibThread();
  DesktopGlibThread(const DesktopGlibThread&) = delete;
  DesktopGlibThread& operator=(const DesktopGlibThread&) = delete;

  // Runs `fn` on the thread soon, in order. Any thread.
  void invoke(std::function<void()> fn);
  // Runs `fn` on the thread and returns when it has run (at once when called
  // on the thread itself).
  void invokeAndWait(std::function<void()> fn);
  bool isCurrentThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  static gboolean drainTasks(gpointer self);

  GMainContext* context_;
  GMainLoop* loop_;
  std::thread thread_;
  // Calls cross to the thread under our own lock: GLib's hand-over is
  // invisible to the thread checker.
  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;
};

}  // namespace zephlore
