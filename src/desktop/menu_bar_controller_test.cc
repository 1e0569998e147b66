// The status item's state logic without a bus: a recording view stands for
// the tray, a manual clock drives the animation.
#include "desktop/menu_bar_controller.h"

#include <gtest/gtest.h>

#include "helper/notices/notice_bridge.h"

namespace zephlore {
namespace {

class RecordingView final : public KRStatusItemView {
 public:
  void show(const KRStatusMenu& m, const std::string& iconName, const std::string&) override {
    shown = true;
    menu = m;
    icon = iconName;
  }
  void hide() override { shown = false; }
  void setIcon(const std::string& name) override { icon = name; }
  void setMenu(const KRStatusMenu& m) override { menu = m; }
  bool onScreen() const override { return inTray; }
  bool shown = false;
  bool inTray = true;
  KRStatusMenu menu;
  std::string icon;
};

class MenuBarControllerTest : public ::testing::Test {
 protected:
  MenuBarControllerTest() {
    controller.setView(&view);
    controller.setWorkPauser([this](bool paused) { workPaused = paused; });
    controller.setTotalSavingsSource([this] { return total; });
    controller.setVisible(true);
  }
  void post(const char* name) { center.post(name); }
  void advance(double s) {
    clock.advance(seconds(s));
    loop.runUntilIdle();
  }

  ManualClock clock;
  RunLoop loop{clock};
  bool workPaused = false;
  NotificationCenter center;
  KRGrowlBridge notices;
  KRMenuBarController controller{loop, center, notices};
  RecordingView view;
  uint64_t total = 1000;
};

TEST_F(MenuBarControllerTest, CompressingWinsOverAnalyzingAndAnimatesEveryFourTenths) {
  loop.runUntilIdle();  // binds the test thread as the main thread
  EXPECT_TRUE(view.shown);
  EXPECT_EQ(view.menu.savingsTitle, "Savings: 1000 b");
  EXPECT_EQ(view.menu.statusTitle, "Status: Idle");

  post(kAnalysisStartedNotification);
  EXPECT_EQ(view.menu.statusTitle, "Status: Analyzing");
  post(kCompressionStartedNotification);
  EXPECT_EQ(view.menu.statusTitle, "Status: Compressing");
  post(kAnalysisEndedNotification);
  EXPECT_EQ(view.menu.statusTitle, "Status: Compressing");

  EXPECT_EQ(view.icon, kIconNormal);
  std::vector<std::string> frames;
  for (int i = 0; i < 8; ++i) {
    advance(i == 0 ? 0.01 : i == 1 ? 0.09 : 0.1);
    frames.push_back(view.icon);
  }
  EXPECT_EQ(frames, (std::vector<std::string>{kAnimationFrames[0], kAnimationFrames[1], kAnimationFrames[2],
                                              // 0.4 s: the cycle restarts, a1 at 0.41 s
                                              kAnimationFrames[3], kAnimationFrames[3], kAnimationFrames[1],
                                              kAnimationFrames[2], kAnimationFrames[3]}));

  // No tray: no frames are drawn; one that comes sees the next cycle.
  view.inTray = false;
  advance(0.1);  // the cycle restarts at 0.8 s
  view.icon = kIconNormal;
  for (int i = 0; i < 4; ++i) advance(0.1);
  EXPECT_EQ(view.icon, kIconNormal);
  view.inTray = true;
  advance(0.4);  // the cycle of 1.6 s, its first frame at 1.61 s
  advance(0.01);
  EXPECT_EQ(view.icon, kAnimationFrames[0]);

  post(kAnalysisStartedNotification);
  post(kCompressionEndedNotification);
  EXPECT_EQ(view.menu.statusTitle, "Status: Analyzing");
  EXPECT_EQ(view.icon, kIconNormal);
  advance(1.0);
  EXPECT_EQ(view.icon, kIconNormal);  // the animation stopped

  // Hiding and showing keeps the rows.
  total = 2048;
  controller.updateSavings();
  controller.setVisible(false);
  EXPECT_FALSE(view.shown);
  controller.setVisible(true);
  EXPECT_EQ(view.menu.statusTitle, "Status: Analyzing");
  EXPECT_EQ(view.menu.savingsTitle, "Savings: 2.05 KB");
}

class CountingSender final : public NoticeSender {
 public:
  void send(const Notice& notice) override { types.push_back(notice.type); }
  std::vector<uint32_t> types;
};

TEST_F(MenuBarControllerTest, PausingDuringCompressionRemembersTheLatestActivityForResume) {
  auto sender = std::make_shared<CountingSender>();
  notices.setSender(sender);
  loop.runUntilIdle();
  post(kAnalysisStartedNotification);
  post(kCompressionStartedNotification);

  controller.togglePause();
  EXPECT_TRUE(controller.paused());
  EXPECT_TRUE(workPaused);
  EXPECT_EQ(view.menu.statusTitle, "Status: Paused");
  EXPECT_EQ(view.menu.pauseTitle, "Resume");
  EXPECT_EQ(view.icon, kIconDisabled);
  advance(1.0);
  EXPECT_EQ(view.icon, kIconDisabled);

  post(kCompressionEndedNotification);  // while paused: remembered, not shown
  EXPECT_EQ(view.menu.statusTitle, "Status: Paused");
  controller.togglePause();
  EXPECT_FALSE(workPaused);
  EXPECT_EQ(view.menu.statusTitle, "Status: Analyzing");
  EXPECT_EQ(view.menu.pauseTitle, "Pause");

  controller.pause();
  post(kAnalysisEndedNotification);
  controller.resume();
  EXPECT_EQ(view.menu.statusTitle, "Status: Idle");
  EXPECT_EQ(sender->types, (std::vector<uint32_t>{KRGrowlBridge::kPause, KRGrowlBridge::kResume}));
}

}  // namespace
}  // namespace zephlore
