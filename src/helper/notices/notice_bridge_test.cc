#include "helper/notices/notice_bridge.h"

#include <gtest/gtest.h>

#include <vector>

namespace zephlore {
namespace {

class RecordingSender : public NoticeSender {
 public:
  void send(const Notice& notice) override { notices.push_back(notice); }
  std::vector<Notice> notices;
};

TEST(GrowlBridgeTest, NoticesCarryTheirTypeNameAndExactTexts) {
  auto sender = std::make_shared<RecordingSender>();
  KRGrowlBridge bridge(sender);

  bridge.notifySavingsIncreasedBy(1000000000, 1000000000);
  bridge.notifyPauseOnBattery();
  bridge.notifyTerminationRequested();
  bridge.showNotificationOfType(9, "t", "d");

  ASSERT_EQ(sender->notices.size(), 4u);
  EXPECT_EQ(sender->notices[0].name, "Savings Increased");
  EXPECT_EQ(sender->notices[1].type, 1u);
  EXPECT_EQ(sender->notices[1].name, "Pause");
  EXPECT_EQ(sender->notices[2].title, "Finishing Operations");
  EXPECT_EQ(sender->notices[3].name, "");
}

}  // namespace
}  // namespace zephlore
