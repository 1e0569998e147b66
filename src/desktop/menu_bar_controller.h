// KRMenuBarController: what the status item shows. It follows the pipeline's
// four activity notifications, keeps the pause bookkeeping, names the icon
// (four frames cycling every 0.4 s while compressing) and titles the menu
// rows. How the item reaches the desktop is a KRStatusItemView (the tray
// adapter); the state logic here never touches a bus.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "base/notification_center.h"
#include "base/run_loop.h"
#include "helper/notices/notice_bridge.h"
#include "protocol/notification_names.h"

namespace zephlore {

enum KRAppStatus : int32_t {
  kStatusIdle = 0,
  kStatusReady = 1,
  kStatusPaused = 2,
  kStatusAnalyzing = 3,
  kStatusCompressing = 4,
};

inline constexpr const char* kIconNormal = "menubar-zephlore-normal";
inline constexpr const char* kIconClicked = "menubar-zephlore-clicked";
inline constexpr const char* kIconDisabled = "menubar-zephlore-disabled";
inline constexpr const char* kAnimationFrames[] = {"menubar-zephlore-normal-a1", "menubar-zephlore-normal-a2",
                                                   "menubar-zephlore-normal-a3", "menubar-zephlore-normal-a4"};

// The rows of the item's menu, top to bottom.
struct KRStatusMenu {
  std::string savingsTitle = "Savings: -";
  std::string statusTitle = "Status: Idle";
  std::string pauseTitle = "Pause";
  std::string openTitle = "Open Zephlore";
};

// The desktop side of the item. Called on the main thread.
class KRStatusItemView {
 public:
  virtual ~KRStatusItemView() = default;
  // Puts the item in the tray with this menu and icon.
  virtual void show(const KRStatusMenu& menu, const std::string& iconName, const std::string& toolTip) = 0;
  virtual void hide() = 0;
  virtual void setIcon(const std::string& iconName) = 0;
  virtual void setMenu(const KRStatusMenu& menu) = 0;
  // Whether anything shows the item now (a tray is there): frames of the
  // animation nobody sees are not drawn.
  virtual bool onScreen() const { return true; }
};

class KRMenuBarController {
 public:
  // Subscribes to the activity notifications on `center`; shows nothing
  // yet. Pause and Resume by hand are told through `notices`.
  KRMenuBarController(RunLoop& mainLoop, NotificationCenter& center, KRGrowlBridge& notices);
  ~KRMenuBarController();
  KRMenuBarController(const KRMenuBarController&) = delete;
  KRMenuBarController& operator=(const KRMenuBarController&) = delete;

  // Wiring. The view may be none (no tray at all); the savings source gives
  // the history's total (none: "Savings: -").
  void setView(KRStatusItemView* view);
  void setTotalSavingsSource(std::function<uint64_t()> source);
  // What "Open Zephlore" does (the desktop installs the terminal launcher).
  void setShowHistoryAction(std::function<void()> action);
  // What Pause and Resume do to the helper's work (true: pause).
  void setWorkPauser(std::function<void(bool paused)> pauser) { workPauser_ = std::move(pauser); }
  // Told after every change of what the item shows (status, pause, savings).
  void setChangeObserver(std::function<void()> observer) { changeObserver_ = std::move(observer); }

  // Main thread from here on.
  void setVisible(bool visible);
  bool visible() const { return visible_; }
  void setAppStatus(int32_t status);
  int32_t appStatus() const { return appStatus_; }
  bool paused() const { return paused_; }
  void pause();
  void resume();
  // The menu commands.
  void togglePause();
  void showHistory();
  // Retitles the savings row (on every change of the history's total).
  void updateSavings();
  void processStatusNotification(const std::string& name);

  const KRStatusMenu& menu() const { return menu_; }
  const std::string& iconName() const { return iconName_; }
  static std::string statusText(int32_t status);

 private:
  void readyMenuExtra();
  void animate();
  void setAnimationImage(const std::string& iconName);
  void setIcon(const std::string& iconName);
  void cancelDelayedCalls();
  void menuChanged();

  RunLoop& mainLoop_;
  NotificationCenter& center_;
  KRGrowlBridge& notices_;
  std::vector<NotificationCenter::ObserverId> observers_;
  KRStatusItemView* view_ = nullptr;
  std::function<uint64_t()> totalSavings_;
  std::function<void()> showHistoryAction_;
  std::function<void()> changeObserver_;
  std::function<void(bool)> workPauser_;
  KRStatusMenu menu_;
  std::string iconName_ = kIconNormal;
  int32_t appStatus_ = kStatusIdle;
  int32_t appStatusPriorToPausing_ = kStatusIdle;
  bool analyzing_ = false;
  bool paused_ = false;
  bool visible_ = false;
};

}  // namespace zephlore
