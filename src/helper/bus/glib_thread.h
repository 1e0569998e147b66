// A thread that runs a GLib main loop, for the parts that talk to the desktop
// through GLib (the session bus, desktop notices, the status object and the
// tray item). Sources attached to context() and callbacks of objects made on
// this thread run there; other threads hand it work with post() or run().
// The bus connection of the distributed notification center has one; the
// desktop parts that serve the bus share another (desktop/desktop_thread.h);
// desktop notices, which may block on a notification server that does not
// answer, have a third, so they cannot hold up the others.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace zephlore {

class GlibThread {
 public:
  enum class Context {
    kOwn,
    // GLib's global default context. libdbusmenu queues its work there, so
    // the thread serving a menu must run it; only one thread may.
    kGlobalDefault,
  };

  // Starts the thread and returns once it owns its context, which is the
  // thread-default one there, so GIO objects made on it deliver their
  // signals on it. Until then nobody else may take the context: GLib lets a
  // thread whose default context is free run "invoked" work itself.
  explicit GlibThread(Context context = Context::kOwn);
  // stop().
  ~GlibThread();
  GlibThread(const GlibThread&) = delete;
  GlibThread& operator=(const GlibThread&) = delete;

  GMainContext* context() const { return context_; }
  bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

  // Runs `fn` on the thread soon, in posting order. Any thread.
  void post(std::function<void()> fn);
  // Runs `fn` on the thread and returns once it has run; at once when called
  // on the thread itself.
  void run(std::function<void()> fn);

  // Lets every source ready on the context run (GLib frees what it queued
  // for objects already released), then ends the loop and joins the thread.
  // Idempotent; nothing may be posted afterwards.
  void stop();

 private:
  using Task = std::pair<std::function<void()>, std::shared_ptr<std::promise<void>>>;

  void enqueue(Task task);
  static gboolean drainTasks(gpointer self);

  GMainContext* context_;
  GMainLoop* loop_;
  std::thread thread_;

  // The tasks travel through our own locked queue, so that the hand-over is
  // visible to thread checkers; GLib only wakes the thread.
  std::mutex mutex_;
  std::vector<Task> tasks_;
};

}  // namespace zephlore
