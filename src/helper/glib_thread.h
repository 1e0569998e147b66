// A thread that runs a GLib main loop on a main context of its own, for the
// parts that talk to the desktop through GLib (the session bus, desktop
// notices, the status item). Sources attached to context() and callbacks of
// objects made on this thread run there; other threads hand it work with
// post() or run().
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
  // Starts the thread; its context is the thread-default one there, so GIO
  // objects made on it deliver their signals on it.
  GlibThread();
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
