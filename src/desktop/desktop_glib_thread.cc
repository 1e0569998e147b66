#include "desktop/desktop_glib_thread.h"

#include <future>
#include <memory>

namespace zephlore {

DesktopGlibThread::DesktopGlibThread(bool globalDefault)
    : context_(globalDefault ? g_main_context_ref(g_main_context_default()) : g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)) {
  thread_ = std::thread([this] {
    g_main_context_push_thread_default(context_);
    g_main_loop_run(loop_);
    // Sources freed by objects released late still need a turn.
    while (g_main_context_pending(context_)) g_main_context_iteration(context_, FALSE);
    g_main_context_pop_thread_default(context_);
  });
}

DesktopGlibThread::~DesktopGlibThread() {
  invoke([this] { g_main_loop_quit(loop_); });
  thread_.join();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

void DesktopGlibThread::invoke(std::function<void()> fn) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(fn));
  }
  g_main_context_invoke(context_, drainTasks, this);
}

gboolean DesktopGlibThread::drainTasks(gpointer data) {
  auto* self = static_cast<DesktopGlibThread*>(data);
  std::vector<std::function<void()>> tasks;
  {
    std::lock_guard lock(self->mutex_);
    tasks.swap(self->tasks_);
  }
  for (std::function<void()>& task : tasks) task();
  return G_SOURCE_REMOVE;
}

void DesktopGlibThread::invokeAndWait(std::function<void()> fn) {
  if (isCurrentThread()) {
    fn();
    return;
  }
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  invoke([&fn, done] {
    fn();
    done->set_value();
  });
  finished.wait();
}

}  // namespace zephlore
