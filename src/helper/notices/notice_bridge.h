// KRGrowlBridge: the helper's user-visible notices (savings milestones, pause
// and resume, uncompression, orderly shutdown). It owns the types, titles and
// texts; how a notice reaches the desktop is a NoticeSender installed by the
// desktop layer (libnotify there, a recorder in tests). With no sender a
// notice is dropped, as with no notification server at all.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "base/shared_instance.h"

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

  static KRGrowlBridge& sharedGrowlBridge() { return sharedInstance().get(); }
  // Where tests install their own (ScopedShared<KRGrowlBridge>).
  static SharedInstance<KRGrowlBridge>& sharedInstance();

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
  friend class ScopedShared<KRGrowlBridge>;
  KRGrowlBridge() = default;
  void send(const Notice& notice);

  std::mutex mutex_;
  std::shared_ptr<NoticeSender> sender_;
};

// Installs `sender` for the life of the object and puts the previous one back.
class ScopedNoticeSender {
 public:
  explicit ScopedNoticeSender(std::shared_ptr<NoticeSender> sender)
      : previous_(KRGrowlBridge::sharedGrowlBridge().setSender(std::move(sender))) {}
  ~ScopedNoticeSender() { KRGrowlBridge::sharedGrowlBridge().setSender(previous_); }
  ScopedNoticeSender(const ScopedNoticeSender&) = delete;
  ScopedNoticeSender& operator=(const ScopedNoticeSender&) = delete;

 private:
  std::shared_ptr<NoticeSender> previous_;
};

}  // namespace zephlore
