#include "desktop/glib_task_thread.h"

#include <future>
#include <memory>

namespace zephlore {

GlibTaskThread::GlibTaskThread() {
  context_ = g_main_context_new();
  loop_ = g_main_loop_new(context_, FALSE);
  thread_ = std::thread([this] {
    g_main_context_push_thread_default(context_);
    g_main_loop_run(loop_);
    // Tasks posted before the quit still run.
    drain(this);
    g_main_context_pop_thread_default(context_);
  });
}

namespace {

// Always deferred to the thread: g_main_context_invoke() would run the call
// on the caller's thread while the context has no owner yet.
void attachIdle(GMainContext* context, GSourceFunc fn, gpointer data) {
  GSource* source = g_idle_source_new();
  g_source_set_callback(source, fn, data, nullptr);
  g_source_attach(source, context);
  g_source_unref(source);
}

}  // namespace

GlibTaskThread::~GlibTaskThread() {
  attachIdle(
      context_,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      loop_);
  thread_.join();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

gboolean GlibTaskThread::drain(gpointer self) {
  auto* thread = static_cast<GlibTaskThread*>(self);
  std::vector<std::function<void()>> batch;
  {
    std::lock_guard<std::mutex> lock(thread->mutex_);
    batch.swap(thread->tasks_);
  }
  for (auto& task : batch) task();
  return G_SOURCE_REMOVE;
}

void GlibTaskThread::post(std::function<void()> task) {
  bool first;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    first = tasks_.empty();
    tasks_.push_back(std::move(task));
  }
  // One wake-up per batch; the tasks themselves cross under the mutex.
  if (first) attachIdle(context_, &GlibTaskThread::drain, this);
}

void GlibTaskThread::flush() {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  post([done] { done->set_value(); });
  finished.wait();
}

}  // namespace zephlore
