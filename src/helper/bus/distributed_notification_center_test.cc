#include "helper/bus/distributed_notification_center.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "base/log.h"
#include "protocol/bus_names.h"
#include "protocol/notification_names.h"
#include "testing/child.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::runProcess;
using testkit::TestHome;
using testkit::TestSessionBus;

// Log lines may come from the GLib thread.
struct LogLines {
  std::mutex mutex;
  std::vector<std::string> lines;
  ScopedLogCapture capture{[this](const std::string& line) {
    std::lock_guard lock(mutex);
    lines.push_back(line);
  }};
  std::vector<std::string> get() {
    std::lock_guard lock(mutex);
    return lines;
  }
};

// Emits a Notification from a separate gdbus process, as any script could.
void emitFromAnotherProcess(const std::string& name, const std::string& userInfo = "@a{sv} {}",
                            const char* immediate = "false") {
  std::vector<std::string> argv = {"gdbus", "emit", "--session", "--object-path",
                                   DistributedNotificationCenter::kObjectPath, "--signal",
                                   std::string(DistributedNotificationCenter::kInterface) +
                                       ".Notification",
                                   "'" + name + "'"};
  if (!userInfo.empty()) argv.push_back(userInfo);
  if (immediate) argv.push_back(immediate);
  testkit::ProcessResult result = runProcess(argv);
  ASSERT_EQ(result.status, 0) << result.err;
}

class DistributedNotificationCenterTest : public ::testing::Test {
 protected:
  SystemClock clock;
  RunLoop loop{clock};  // outlives the centre, whose observers it runs
  TestHome home;
  TestSessionBus bus{home.root()};
  DistributedNotificationCenter center;
};

// Signals sent by another process, as any script could: each reaches only
// the observers of its name, on the main thread, with the payload intact.
TEST_F(DistributedNotificationCenterTest, SignalsFromAnotherProcessReachTheirObserversIntact) {
  ASSERT_TRUE(center.isConnected());
  LogLines log;
  std::vector<Notification> folders, active;
  std::vector<std::string> quit_seen, version_values;
  std::thread::id handler_thread;
  center.addObserver(kFoldersNotification, [&](const Notification& note) {
    handler_thread = std::this_thread::get_id();
    folders.push_back(note);
  }, loop);
  center.addObserver(kActiveStatusNotification, [&](const Notification& note) { active.push_back(note); }, loop);
  center.addObserver(kHelperShouldQuitNotification, [&](const Notification& note) { quit_seen.push_back(note.name); }, loop);
  center.addObserver(kVersionNotification, [&](const Notification& note) {
    EXPECT_EQ(note.name, kVersionNotification);
    const std::string* version = userInfoString(note.userInfo, kVersionKey);
    version_values.push_back(version ? *version : "(none)");
  }, loop);
  // Strings, arrays of strings (also empty ones and non-ASCII text) arrive
  // as they were sent; a number is not part of the wire format and is left
  // out with one logged line.
  emitFromAnotherProcess(kFoldersNotification,
                         "{'foldersToAdd': <['/home/a b', '/Mus\u00e9e']>, 'foldersToRemove': "
                         "<@as []>, 'note': <'x'>, 'count': <int32 5>}");
  // A name nobody observes, a prefix of an observed one.
  emitFromAnotherProcess("com.quorvane.zephlore");
  emitFromAnotherProcess(kVersionNotification, "{'version': <'1.2 '>}");
  emitFromAnotherProcess(kVersionNotification);  // no "version": the handler decides
  // Hand-made: only a name; then a list where the dictionary belongs.
  emitFromAnotherProcess(kActiveStatusNotification, "", nullptr);
  emitFromAnotherProcess(kActiveStatusNotification, "['x']", "true");
  // The last one arriving means the earlier ones have been delivered (one
  // sender after another, in order).
  emitFromAnotherProcess(kHelperShouldQuitNotification);
  ASSERT_TRUE(loop.runUntil([&] { return !quit_seen.empty(); }));

  EXPECT_EQ(handler_thread, std::this_thread::get_id());
  ASSERT_EQ(folders.size(), 1u);
  const Notification& note = folders[0];
  EXPECT_EQ(note.name, kFoldersNotification);
  ASSERT_NE(userInfoStrings(note.userInfo, kFoldersToAddKey), nullptr);
  EXPECT_EQ(*userInfoStrings(note.userInfo, kFoldersToAddKey),
            (std::vector<std::string>{"/home/a b", "/Mus\u00e9e"}));
  ASSERT_NE(userInfoStrings(note.userInfo, kFoldersToRemoveKey), nullptr);
  EXPECT_TRUE(userInfoStrings(note.userInfo, kFoldersToRemoveKey)->empty());
  ASSERT_NE(userInfoString(note.userInfo, "note"), nullptr);
  EXPECT_EQ(*userInfoString(note.userInfo, "note"), "x");
  EXPECT_EQ(note.userInfo.count("count"), 0u);
  EXPECT_EQ(quit_seen, std::vector<std::string>{kHelperShouldQuitNotification});
  EXPECT_EQ(version_values, (std::vector<std::string>{"1.2 ", "(none)"}));
  ASSERT_EQ(active.size(), 2u);
  for (const Notification& hand_made : active) {
    EXPECT_EQ(hand_made.name, kActiveStatusNotification);
    EXPECT_TRUE(hand_made.userInfo.empty());
  }
  std::vector<std::string> lines = log.get();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("count"), std::string::npos);
}

TEST_F(DistributedNotificationCenterTest, PostsFromAnyThreadRemovedObserversStayQuietAndNamesAreOwned) {
  std::vector<Notification> kept;
  int removed_calls = 0;
  auto removed = center.addObserver(kSavingsChangedNotification,
                                    [&](const Notification&) { ++removed_calls; }, loop);
  center.addObserver(kSavingsChangedNotification,
                     [&](const Notification& note) { kept.push_back(note); }, loop);
  center.removeObserver(removed);

  std::thread poster([&] {
    UserInfo info{{"path", std::string("/a")},
                  {"list", std::vector<std::string>{"x", "y"}},
                  {"bad", std::string("\xff\xfe")}};
    center.postNotificationName(kSavingsChangedNotification, info, true);
    center.flush();
  });
  poster.join();
  ASSERT_TRUE(loop.runUntil([&] { return !kept.empty(); }));

  EXPECT_EQ(removed_calls, 0);
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(*userInfoString(kept[0].userInfo, "path"), "/a");
  EXPECT_EQ(*userInfoStrings(kept[0].userInfo, "list"), (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(kept[0].userInfo.count("bad"), 0u);  // not UTF-8: left out, not a crash

  EXPECT_FALSE(center.nameHasOwner(kHelperBusName));
  center.ownName(kHelperBusName);
  EXPECT_TRUE(center.nameHasOwner(kHelperBusName));
}

TEST_F(DistributedNotificationCenterTest, ADaemonThatEndsIsToldToItsOwnerOnce) {
  std::mutex mutex;
  std::condition_variable changed;
  int lost = 0;
  center.setConnectionLostHandler([&] {
    std::lock_guard lock(mutex);
    ++lost;
    changed.notify_all();
  });
  ASSERT_TRUE(center.isConnected());
  {
    // A centre its owner ends (as each command does) has lost nothing.
    LogLines quiet;
    bool ownLost = false;
    {
      DistributedNotificationCenter ended;
      ASSERT_TRUE(ended.isConnected());
      ended.setConnectionLostHandler([&] { ownLost = true; });
    }
    EXPECT_FALSE(ownLost);
    EXPECT_TRUE(quiet.get().empty()) << quiet.get()[0];
  }
  LogLines log;
  bus.kill();
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return lost > 0; }));
  }
  EXPECT_FALSE(center.isConnected());
  center.postNotificationName(kHelperShouldQuitNotification);  // goes nowhere, quietly
  EXPECT_FALSE(center.flush());
  std::lock_guard lock(mutex);
  EXPECT_EQ(lost, 1);
  ASSERT_FALSE(log.get().empty());
  EXPECT_NE(log.get()[0].find("Lost the D-Bus session bus"), std::string::npos);
}

// No bus address and no $XDG_RUNTIME_DIR/bus, or an address with no daemon.
TEST(DistributedNotificationCenterWithoutBusTest, RunsWithoutMessagesAndSaysSoOnce) {
  TestHome home;
  LogLines log;
  SystemClock clock;
  RunLoop loop(clock);
  {
    DistributedNotificationCenter center;
    EXPECT_FALSE(center.isConnected());
    int calls = 0;
    center.addObserver(kHelperShouldQuitNotification, [&](const Notification&) { ++calls; }, loop);
    center.postNotificationName(kHelperShouldQuitNotification);
    EXPECT_FALSE(center.flush());
    EXPECT_FALSE(center.nameHasOwner(kHelperBusName));
    loop.runUntilIdle();
    EXPECT_EQ(calls, 0);
  }
  std::vector<std::string> lines = log.get();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("No D-Bus session bus"), std::string::npos);

  DistributedNotificationCenter center("unix:path=" + home.root() + "/no-such-socket");
  EXPECT_FALSE(center.isConnected());
  center.postNotificationName(kHelperShouldQuitNotification);
  EXPECT_EQ(log.get().size(), 2u);
}

}  // namespace
}  // namespace zephlore
