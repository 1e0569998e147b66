// KRGrowlBridge: the helper's user-visible notices (savings milestones, pause
// and resume, uncompression, orderly shutdown). It owns the types, titles and
// texts; how a notice reaches the desktop is a NoticeSender installed by the
// desktop layer (libnotify there, a recorder in tests). With no sender a
// notice is dropped, as with no notification server at all. The helper's
// one bridge is owned by its application delegate and handed to its users.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace zephlore {

// One notice as the desktop receives it. `name` is the type's name, which a
// notification service may use as its category.
struct Notice {
  uint32_t type = 0;
  std::string name;
  std::string title;
  std::string description;
  // The database alerts: shown at critical urgency, not filed under a type.
  bool critical = false;
};

class NoticeSender {
 public:
  virtual ~NoticeSender() = default;
  // Must not block the caller for long and never fails it.
  virtual void send(const Notice& notice) = 0;
};

class KRGrowlBridge {
 public:
  enum Type : uint32_t {
    kSavingsIncreased = 0,
    kPause = 1,
    kResume = 2,
    kUncompressionStarted = 3,
    kUncompressionEnded = 4,
    kFinishingOperations = 5,
  };

  explicit KRGrowlBridge(std::shared_ptr<NoticeSender> sender = nullptr) : sender_(std::move(sender)) {}

  // The type's name, or "" for an unknown type.
  static std::string notificationNameForType(uint32_t type);

  // Replaces the sender; returns the previous one. Any thread.
  std::shared_ptr<NoticeSender> setSender(std::shared_ptr<NoticeSender> sender);

  void showNotificationOfType(uint32_t type, const std::string& title,
                              const std::string& description);

  void notifySavingsIncreasedBy(uint64_t increase, uint64_t total);
  void notifyPause();
  void notifyResume();
  void notifyPauseOnBattery();
  void notifyResumeOnNonBatteryPowerSource();
  void notifyUncompressionStarted();
  void notifyUncompressionEnded();
  void notifyTerminationRequested();

  // An alert the user must see (a damaged or unusable history database):
  // its own title and text, no type, critical.
  void showCriticalNotice(const std::string& title, const std::string& description);

  KRGrowlBridge(const KRGrowlBridge&) = delete;
  KRGrowlBridge& operator=(const KRGrowlBridge&) = delete;

 private:
  void send(const Notice& notice);

  std::mutex mutex_;
  std::shared_ptr<NoticeSender> sender_;
};

}  // namespace zephlore
