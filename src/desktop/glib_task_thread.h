// A GLib thread for work that needs GLib's main context (libnotify's D-Bus
// calls): tasks run there in posting order, and posting never blocks.
//
// The one seam between the desktop notices and their thread: a shared GLib
// thread of the helper can take this class's place without touching the
// sender.
#pragma once

#include <glib.h>

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zephlore {

class GlibTaskThread {
 public:
  GlibTaskThread();
  // Runs the tasks already posted, then ends the thread.
  ~GlibTaskThread();
  GlibTaskThread(const GlibTaskThread&) = delete;
  GlibTaskThread& operator=(const GlibTaskThread&) = delete;

  // Runs `task` on the thread soon. Any thread; never blocks.
  void post(std::function<void()> task);
  // Returns once every task posted before has run (tests, quitting).
  void flush();

 private:
  static gboolean drain(gpointer self);

  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  std::thread thread_;
  std::mutex mutex_;  // guards tasks_
  std::vector<std::function<void()>> tasks_;
};

}  // namespace zephlore
