#include "helper/bus/glib_thread.h"

#if defined(__SANITIZE_THREAD__)
// GLib and GIO are not built for the thread checker and hand memory between
// their own threads with futexes it cannot see, so their calls into libc
// (memset, memcpy, allocation) look like races. Ignore those calls made from
// inside GLib; our own data crosses threads only through std::mutex.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so.0\n"
         "called_from_lib:libgobject-2.0.so.0\n"
         "called_from_lib:libgio-2.0.so.0\n";
}
#endif

namespace zephlore {

GlibThread::GlibThread(Context context)
    : context_(context == Context::kGlobalDefault ? g_main_context_ref(g_main_context_default())
                                                  : g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)) {
  std::promise<void> owned;
  std::future<void> ready = owned.get_future();
  thread_ = std::thread([this, &owned] {
    // Pushing acquires the context; the thread keeps it until the pop.
    g_main_context_push_thread_default(context_);
    owned.set_value();
    g_main_loop_run(loop_);
    g_main_context_pop_thread_default(context_);
  });
  ready.wait();
}

GlibThread::~GlibThread() {
  stop();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

void GlibThread::stop() {
  if (!thread_.joinable()) return;
  run([this] {
    while (g_main_context_pending(context_)) g_main_context_iteration(context_, FALSE);
  });
  g_main_loop_quit(loop_);
  thread_.join();
}

void GlibThread::post(std::function<void()> fn) { enqueue({std::move(fn), nullptr}); }

void GlibThread::run(std::function<void()> fn) {
  if (isCurrent()) {
    fn();
    return;
  }
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  enqueue({std::move(fn), std::move(done)});
  finished.wait();
}

void GlibThread::enqueue(Task task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, &GlibThread::drainTasks, this, nullptr);
  g_source_attach(source, context_);
  g_source_unref(source);
}

gboolean GlibThread::drainTasks(gpointer self) {
  auto* glib = static_cast<GlibThread*>(self);
  std::vector<Task> batch;
  {
    std::lock_guard lock(glib->mutex_);
    batch.swap(glib->tasks_);
  }
  for (auto& [fn, done] : batch) {
    fn();
    if (done) done->set_value();
  }
  return G_SOURCE_REMOVE;
}

}  // namespace zephlore
