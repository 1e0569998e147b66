// The fixture of the end-to-end tests: a real zephlore-helper process on a
// private bus and a tmpfs of the test's own, its waits shortened with
// ZEPHLORE_CLOCK_SPEED, driven by the zephlore command. Every wait is for the
// helper's own progress (a bus name, an answer of the helper, a process
// end), bounded by a timeout; nothing sleeps.
#pragma once

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <set>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "protocol/bus_names.h"
#include "testing/child.h"
#include "testing/files.h"
#include "testing/private_tmpfs.h"
#include "testing/scoped_env.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore::e2e {

using testkit::Child;
using testkit::ProcessResult;
using testkit::runProcess;
using testkit::waitForExit;

inline const std::string kBin = ZEPHLORE_BINARY_DIR "/bin/";

// Under the thread checker the helper runs several times slower: the tests
// scale their large files and their rounds down by this much, so that a
// file is still in hand as long as in the normal build and the suite keeps
// its time.
#if defined(__SANITIZE_THREAD__)
inline constexpr bool kUnderThreadChecker = true;
#else
inline constexpr bool kUnderThreadChecker = false;
#endif
inline constexpr int kCheckerSlowdown = kUnderThreadChecker ? 4 : 1;

inline ProcessResult zephlore(std::vector<std::string> args) {
  args.insert(args.begin(), kBin + "zephlore");
  return runProcess(args);
}

inline bool waitForHelperName() {
  return runProcess({"gdbus", "wait", "--session", "--timeout", "10", "com.quorvane.ZephloreHelper"}).status == 0;
}

inline nlohmann::json statusJson() {
  ProcessResult r = zephlore({"status", "--json"});
  return nlohmann::json::parse(r.out, nullptr, false);
}

inline nlohmann::json infoJson(const std::string& path) {
  return nlohmann::json::parse(zephlore({"info", "--json", path}).out, nullptr, false);
}

inline std::string tsanOptions() {
  const char* options = getenv("TSAN_OPTIONS");
  return std::string(options ? options : "") + ":report_signal_unsafe=0";
}

// Hears the helper announce the file it has in hand, from before that file
// is saved. Asking `zephlore status` in a loop instead misses a file
// compressed between two questions (each one a process start, slow under
// the thread checker).
class FileInProcessWatch {
 public:
  explicit FileInProcessWatch(const std::string& bus_address) : context_(g_main_context_new()) {
    g_main_context_push_thread_default(context_);
    connection_ = g_dbus_connection_new_for_address_sync(
        bus_address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (connection_ == nullptr) return;
    subscription_ = g_dbus_connection_signal_subscribe(
        connection_, nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged", status_names::kObjectPath,
        nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &FileInProcessWatch::onChange, this, nullptr);
    // Once the bus answers a call, it holds the match rule of the subscription.
    GVariant* id = g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (id != nullptr) g_variant_unref(id);
  }
  ~FileInProcessWatch() {
    if (connection_ != nullptr) {
      g_dbus_connection_signal_unsubscribe(connection_, subscription_);
      g_dbus_connection_close_sync(connection_, nullptr, nullptr);
      g_object_unref(connection_);
    }
    g_main_context_pop_thread_default(context_);
    while (g_main_context_pending(context_)) g_main_context_iteration(context_, FALSE);
    g_main_context_unref(context_);
  }
  FileInProcessWatch(const FileInProcessWatch&) = delete;
  FileInProcessWatch& operator=(const FileInProcessWatch&) = delete;

  // True once the helper named `path` as its file in process, waiting for
  // at most 30 s for that.
  bool waitFor(const std::string& path) {
    bool late = false;
    GSource* limit = g_timeout_source_new_seconds(30);
    g_source_set_callback(
        limit,
        [](gpointer flag) -> gboolean {
          *static_cast<bool*>(flag) = true;
          return G_SOURCE_REMOVE;
        },
        &late, nullptr);
    g_source_attach(limit, context_);
    while (connection_ != nullptr && !late && !named_.count(path)) g_main_context_iteration(context_, TRUE);
    g_source_destroy(limit);
    g_source_unref(limit);
    return named_.count(path) != 0;
  }

 private:
  static void onChange(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                       GVariant* parameters, gpointer self) {
    GVariant* changed = g_variant_get_child_value(parameters, 1);
    const gchar* path = nullptr;
    if (g_variant_lookup(changed, status_names::kFileInProcess, "&s", &path)) {
      static_cast<FileInProcessWatch*>(self)->named_.insert(path);
    }
    g_variant_unref(changed);
  }

  GMainContext* context_;
  GDBusConnection* connection_ = nullptr;
  guint subscription_ = 0;
  std::set<std::string> named_;
};

class HelperEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!folder_.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here (needs root)";
    // Views (on by default where FUSE works) outlive the helper; only the
    // test about them turns them on.
    ASSERT_EQ(zephlore({"view-off"}).status, 0);
  }
  // Starts the helper with its waits 1000 times shorter; true once it owns its name.
  bool startHelper() {
    helper_ = std::make_unique<Child>(std::vector<std::string>{kBin + "zephlore-helper"});
    return waitForHelperName();
  }
  // Asks the running helper until its total savings exceed `floor`, for at
  // most 20 s. Each answer is a whole round trip to the helper, so this waits
  // on the helper's own progress, not on a timer.
  static bool waitForSavingsAbove(uint64_t floor) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      nlohmann::json status = statusJson();
      if (status.is_object() && status.value("totalSavings", uint64_t{0}) > floor) return true;
    }
    return false;
  }

  // The helper's log, once it was ended: for failure messages.
  std::string endHelper() {
    kill(helper_->pid(), SIGTERM);
    helper_->finish();
    return helper_->err();
  }
  // Written beside the watched folder and moved in whole, so the helper
  // never sees it half written.
  void saveInto(const std::string& folder, const std::string& name, const std::string& data) {
    const std::string staged = folder_.path() + "/" + name + ".part";
    testkit::writeFile(staged, data);
    ASSERT_EQ(rename(staged.c_str(), (folder + "/" + name).c_str()), 0);
  }

  testkit::PrivateTmpfs folder_;
  testkit::TestHome home_;
  testkit::TestSessionBus bus_{home_.root()};
  testkit::ScopedEnvVar speed_{"ZEPHLORE_CLOCK_SPEED", std::string("1000")};
  // The helper's log lines on its standard error, for the failure messages.
  testkit::ScopedEnvVar journal_{"JOURNAL_STREAM", std::string("test")};
  // The crash path saves the history from the signal handler on purpose
  // (bounded by its alarm); under the thread checker that is not a fault.
  testkit::ScopedEnvVar tsan_{"TSAN_OPTIONS", tsanOptions()};
  std::unique_ptr<Child> helper_;
};

}  // namespace zephlore::e2e
