#include "desktop/libnotify_sender.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/log.h"
#include "base/run_loop.h"
#include "helper/history/history_database.h"
#include "testing/files.h"
#include "testing/notification_server.h"
#include "testing/session_bus.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::MockNotificationServer;

// A damaged history database reaches the server as a critical alert with its
// text whole; a typed notice carries its category at normal urgency.
TEST(LibnotifySenderTest, TheServerSeesACriticalAlertAndATypedNotice) {
  testkit::TestHome home;
  testkit::TestSessionBus bus(home.root());
  MockNotificationServer server;
  ASSERT_TRUE(server.ready());
  auto sender = std::make_shared<LibnotifySender>();
  KRGrowlBridge notices(sender);
  std::filesystem::create_directories(home.dataFolder());
  HistoryDatabase database(Env::system(), home.dataFolder(), &notices);
  std::string noise;
  for (int i = 0; i < 4096; ++i) noise.push_back(static_cast<char>(i * 7919 % 251));
  testkit::writeFile(database.databasePath(), noise);
  ASSERT_NE(database.managedObjectContext(), nullptr);
  sender->send(Notice{0, "Savings Increased", "Savings Increased",
                      "Total savings of Zephlore have increased by 1.00 GB, they are now 1.00 GB."});
  sender->flush();

  std::string calls = server.calls();
  EXPECT_NE(calls.find("'Notify', [<'Zephlore'>, <uint32 0>, <''>, <'Zephlore Database Error'>, "
                       "<'Zephlore database is corrupt, and recovery attempts did not succeed.\\n\\nA new "
                       "empty database will be created now."),
            std::string::npos)
      << calls;
  EXPECT_NE(calls.find("'urgency': <byte 0x02>"), std::string::npos) << calls;
  EXPECT_NE(calls.find("<'Total savings of Zephlore have increased by 1.00 GB, they are now 1.00 GB.'>"),
            std::string::npos)
      << calls;
  EXPECT_NE(calls.find("'category': <'Savings Increased'>"), std::string::npos) << calls;
  EXPECT_NE(calls.find("'urgency': <byte 0x01>"), std::string::npos) << calls;
}

TEST(LibnotifySenderTest, WithoutAServerANoticeIsDroppedWithOneLine) {
  testkit::TestHome home;
  std::vector<std::string> lines;
  std::mutex mutex;
  ScopedLogCapture capture([&](const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back(line);
  });
  LibnotifySender sender;
  sender.send(Notice{1, "Pause", "Zephlore Paused", "no bus at all"});
  sender.flush();
  {
    testkit::TestSessionBus bus(home.root());  // a bus, but no notification server
    sender.send(Notice{1, "Pause", "Zephlore Paused", "no server"});
    sender.flush();
  }
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("dropped: no D-Bus session bus"), std::string::npos);
  EXPECT_NE(lines[1].find("Notice \"Zephlore Paused\" dropped"), std::string::npos);
}

}  // namespace
}  // namespace zephlore
