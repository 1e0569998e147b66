#include "helper/bus/glib_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace zephlore {
namespace {

TEST(GlibThread, WorkRunsOnTheThreadInOrderAndSourcesOnItsContext) {
  // Atomic, and made before the thread: GLib's own hand-over of a source is
  // invisible to thread checkers.
  std::atomic<bool> idle_ran{false};
  GlibThread glib;
  std::vector<std::string> ran;  // touched only on the GLib thread until run() returns
  std::thread::id where;
  glib.post([&] { ran.push_back("posted"); });
  glib.run([&] {
    where = std::this_thread::get_id();
    ran.push_back("run");
    // Nested on the thread itself: runs at once instead of waiting for itself.
    glib.run([&] { ran.push_back("nested"); });
    EXPECT_TRUE(glib.isCurrent());
    EXPECT_EQ(g_main_context_get_thread_default(), glib.context());
  });
  EXPECT_EQ(ran, (std::vector<std::string>{"posted", "run", "nested"}));
  EXPECT_NE(where, std::this_thread::get_id());
  EXPECT_FALSE(glib.isCurrent());

  // A source attached from outside runs there too, before stop() returns.
  GSource* idle = g_idle_source_new();
  g_source_set_callback(
      idle, [](gpointer flag) { static_cast<std::atomic<bool>*>(flag)->store(true); return G_SOURCE_REMOVE; },
      &idle_ran, nullptr);
  g_source_attach(idle, glib.context());
  g_source_unref(idle);
  glib.stop();
  EXPECT_TRUE(idle_ran);
  glib.stop();  // again: nothing to do
}

}  // namespace
}  // namespace zephlore
