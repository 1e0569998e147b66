#include "desktop/menu_bar_controller.h"

#include "base/util.h"
#include "helper/notices/notice_bridge.h"

namespace zephlore {
namespace {

// Every delayed call of the controller is the animation's.
constexpr const char* kDelayedKey = "animation";

}  // namespace

KRMenuBarController::KRMenuBarController(RunLoop& mainLoop, NotificationCenter& center, KRGrowlBridge& notices)
    : mainLoop_(mainLoop), center_(center), notices_(notices) {
  for (const char* name : {kAnalysisStartedNotification, kAnalysisEndedNotification, kCompressionStartedNotification,
                           kCompressionEndedNotification}) {
    observers_.push_back(center_.addObserver(
        name, nullptr, [this](const Notification& n) {
          // The fields belong to the main thread; analyses post elsewhere.
          if (mainLoop_.isLoopThread()) {
            processStatusNotification(n.name);
          } else {
            mainLoop_.post([this, name = n.name] { processStatusNotification(name); });
          }
        }));
  }
}

KRMenuBarController::~KRMenuBarController() {
  for (NotificationCenter::ObserverId id : observers_) center_.removeObserver(id);
  cancelDelayedCalls();
}

void KRMenuBarController::setView(KRStatusItemView* view) {
  if (view_ && visible_) view_->hide();
  view_ = view;
  if (view_ && visible_) view_->show(menu_, iconName_, "Zephlore Menu");
}

void KRMenuBarController::setTotalSavingsSource(std::function<uint64_t()> source) {
  totalSavings_ = std::move(source);
  updateSavings();
}

void KRMenuBarController::setShowHistoryAction(std::function<void()> action) {
  showHistoryAction_ = std::move(action);
}

std::string KRMenuBarController::statusText(int32_t status) {
  switch (status) {
    case kStatusReady:
      return "Ready";
    case kStatusPaused:
      return "Paused";
    case kStatusAnalyzing:
      return "Analyzing";
    case kStatusCompressing:
      return "Compressing";
    default:
      return "Idle";
  }
}

void KRMenuBarController::readyMenuExtra() {
  iconName_ = kIconNormal;
  updateSavings();
  if (view_) view_->show(menu_, iconName_, "Zephlore Menu");
}

void KRMenuBarController::setVisible(bool visible) {
  if (visible == visible_) return;
  if (visible) {
    visible_ = true;
    readyMenuExtra();
    setAppStatus(paused_ ? kStatusPaused : appStatus_);
    if (paused_) setIcon(kIconDisabled);
  } else {
    cancelDelayedCalls();
    if (view_) view_->hide();
    visible_ = false;
  }
}

void KRMenuBarController::updateSavings() {
  menu_.savingsTitle = totalSavings_ ? "Savings: " + KRUtil::getPrettySize(totalSavings_()) : "Savings: -";
  menuChanged();
}

void KRMenuBarController::setAppStatus(int32_t status) {
  appStatus_ = status;
  menu_.statusTitle = "Status: " + statusText(status);
  menuChanged();
  cancelDelayedCalls();
  setIcon(kIconNormal);
  if (status == kStatusCompressing) animate();
}

void KRMenuBarController::animate() {
  // Frames at 0.01, 0.1, 0.2 and 0.3 s, then again from 0.4 s.
  static constexpr double kFrameDelays[] = {0.01, 0.1, 0.2, 0.3};
  // Off screen only the cycle goes on, so that a tray that comes sees it.
  for (size_t i = 0; i < 4 && view_ && view_->onScreen(); ++i) {
    mainLoop_.performAfterDelay(this, kDelayedKey, seconds(kFrameDelays[i]),
                                [this, i] { setAnimationImage(kAnimationFrames[i]); });
  }
  mainLoop_.performAfterDelay(this, kDelayedKey, seconds(0.4), [this] { animate(); });
}

void KRMenuBarController::setAnimationImage(const std::string& iconName) { setIcon(iconName); }

void KRMenuBarController::setIcon(const std::string& iconName) {
  iconName_ = iconName;
  if (view_ && visible_) view_->setIcon(iconName_);
}

void KRMenuBarController::cancelDelayedCalls() { mainLoop_.cancelPerform(this, kDelayedKey); }

void KRMenuBarController::menuChanged() {
  if (view_ && visible_) view_->setMenu(menu_);
  if (changeObserver_) changeObserver_();
}

void KRMenuBarController::processStatusNotification(const std::string& name) {
  int32_t status = appStatus_ == kStatusPaused ? appStatusPriorToPausing_ : appStatus_;
  if (name == kAnalysisStartedNotification) {
    analyzing_ = true;
    if (status != kStatusCompressing) status = kStatusAnalyzing;
  } else if (name == kAnalysisEndedNotification) {
    analyzing_ = false;
    if (status != kStatusCompressing) status = kStatusIdle;
  } else if (name == kCompressionStartedNotification) {
    status = kStatusCompressing;
  } else if (name == kCompressionEndedNotification) {
    status = analyzing_ ? kStatusAnalyzing : kStatusIdle;
  } else {
    return;
  }
  if (paused_) {
    appStatusPriorToPausing_ = status;  // the menu keeps showing "Paused"
  } else if (status != appStatus_) {
    // "compressionStarted" comes with every addition: restarting the
    // animation each time would freeze it on its first frame.
    setAppStatus(status);
  }
}

void KRMenuBarController::pause() {
  paused_ = true;
  appStatusPriorToPausing_ = appStatus_;
  setAppStatus(kStatusPaused);
  setIcon(kIconDisabled);
  menu_.pauseTitle = "Resume";
  menuChanged();
  if (workPauser_) workPauser_(true);
}

void KRMenuBarController::resume() {
  paused_ = false;
  setAppStatus(appStatusPriorToPausing_);
  if (appStatus_ != kStatusCompressing) setIcon(kIconNormal);
  menu_.pauseTitle = "Pause";
  menuChanged();
  if (workPauser_) workPauser_(false);
}

void KRMenuBarController::togglePause() {
  cancelDelayedCalls();
  if (paused_) {
    resume();
    notices_.notifyResume();
  } else {
    pause();
    notices_.notifyPause();
  }
}

void KRMenuBarController::showHistory() {
  if (showHistoryAction_) showHistoryAction_();
}

}  // namespace zephlore
