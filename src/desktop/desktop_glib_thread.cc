#include "desktop/desktop_glib_thread.h"

#include <future>
#include <memory>

namespace zephlore {
namespace {

gboolean runOnce(gpointer data) {
  (*static_cast<std::function<void()>*>(data))();
  return G_SOURCE_REMOVE;
}

void destroy(gpointer data) { delete static_cast<std::function<void()>*>(data); }

}  // namespace

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
  g_main_context_invoke_full(context_, G_PRIORITY_DEFAULT, runOnce, new std::function<void()>(std::move(fn)),
                             destroy);
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
