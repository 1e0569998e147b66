#include "desktop/history_services.h"

#include <memory>

#include "base/log.h"
#include "desktop/libnotify_sender.h"
#include "helper/distributed_notification_center.h"
#include "helper/growl_bridge.h"
#include "helper/history/history_processor.h"
#include "helper/notification_names.h"
#include "helper/updater.h"

namespace zephlore {
namespace {

std::shared_ptr<LibnotifySender>& noticeSender() {
  static auto* sender = new std::shared_ptr<LibnotifySender>();
  return *sender;
}

void checkOwnVersion(const Notification& notification, const std::function<void()>& quit) {
  const std::string* version = userInfoString(notification.userInfo, kVersionKey);
  if (!version || *version == KRUpdater::ownVersion()) return;
  KRLog("ZephloreHelper: version %s announced (this is %s), relaunching", version->c_str(),
        KRUpdater::ownVersion().c_str());
  if (!KRUpdater::sharedUpdater().relaunch()) return;
  // The new copy must find the name free, not queue behind a process that
  // is about to end.
  DistributedNotificationCenter::defaultCenter().releaseNames();
  quit();
}

}  // namespace

void startHistoryServices(RunLoop& loop, std::function<void()> quit) {
  noticeSender() = std::make_shared<LibnotifySender>();
  KRGrowlBridge::sharedGrowlBridge().setSender(noticeSender());

  KRHistoryProcessor& history = KRHistoryProcessor::sharedHistoryProcessor();
  DistributedNotificationCenter& bus = DistributedNotificationCenter::defaultCenter();
  bus.addObserver(
      kVersionNotification,
      [quit = std::move(quit)](const Notification& notification) {
        checkOwnVersion(notification, quit);
      },
      loop);
  bus.addObserver(
      kFoldersNotification,
      [&history](const Notification& notification) { history.foldersChanged(notification); },
      loop);
  // Folders renamed while the helper was not running get their paths back.
  history.resolveAliases();
}

void stopHistoryServices() {
  KRHistoryProcessor::sharedHistoryProcessor().saveNow();
  KRGrowlBridge::sharedGrowlBridge().setSender(nullptr);
  if (noticeSender()) noticeSender()->flush();
}

}  // namespace zephlore
