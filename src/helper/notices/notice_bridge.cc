#include "helper/notices/notice_bridge.h"

#include "base/util.h"

namespace zephlore {

std::string KRGrowlBridge::notificationNameForType(uint32_t type) {
  switch (type) {
    case kSavingsIncreased: return "Savings Increased";
    case kPause: return "Pause";
    case kResume: return "Resume";
    case kUncompressionStarted: return "Uncompression Started";
    case kUncompressionEnded: return "Uncompression Ended";
    case kFinishingOperations: return "Finishing Operations";
    default: return "";
  }
}

std::shared_ptr<NoticeSender> KRGrowlBridge::setSender(std::shared_ptr<NoticeSender> sender) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::swap(sender, sender_);
  return sender;
}

void KRGrowlBridge::showNotificationOfType(uint32_t type, const std::string& title,
                                           const std::string& description) {
  send(Notice{type, notificationNameForType(type), title, description});
}

void KRGrowlBridge::showCriticalNotice(const std::string& title, const std::string& description) {
  Notice notice;
  notice.type = UINT32_MAX;
  notice.title = title;
  notice.description = description;
  notice.critical = true;
  send(notice);
}

void KRGrowlBridge::send(const Notice& notice) {
  std::shared_ptr<NoticeSender> sender;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sender = sender_;
  }
  if (sender) sender->send(notice);
}

void KRGrowlBridge::notifySavingsIncreasedBy(uint64_t increase, uint64_t total) {
  showNotificationOfType(kSavingsIncreased, "Savings Increased",
                         "Total savings of Zephlore have increased by " +
                             KRUtil::getPrettySize(increase) + ", they are now " +
                             KRUtil::getPrettySize(total) + ".");
}

void KRGrowlBridge::notifyPause() {
  showNotificationOfType(kPause, "Zephlore Paused", "Zephlore has been paused at user's request.");
}

void KRGrowlBridge::notifyResume() {
  showNotificationOfType(kResume, "Zephlore Resuming",
                         "Zephlore has resumed operation at user's request.");
}

void KRGrowlBridge::notifyPauseOnBattery() {
  // The missing word is part of the wording users know.
  showNotificationOfType(kPause, "Zephlore Paused",
                         "Zephlore has been paused this Mac is now running on battery.");
}

void KRGrowlBridge::notifyResumeOnNonBatteryPowerSource() {
  showNotificationOfType(
      kResume, "Zephlore Resuming",
      "This Mac is now attached to an external power source. Zephlore resumes operations.");
}

void KRGrowlBridge::notifyUncompressionStarted() {
  showNotificationOfType(kUncompressionStarted, "Uncompression Started",
                         "The file or folder you requested to, is being uncompressed");
}

void KRGrowlBridge::notifyUncompressionEnded() {
  showNotificationOfType(kUncompressionEnded, "Uncompression Ended",
                         "The file or folder you requested to, is now uncompressed");
}

void KRGrowlBridge::notifyTerminationRequested() {
  showNotificationOfType(kFinishingOperations, "Finishing Operations",
                         "Zephlore has been asked to quit and is orderly terminating operations.");
}

}  // namespace zephlore
