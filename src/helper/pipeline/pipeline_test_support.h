// Test support for the pipeline's tests (header only): a load handler that
// answers what the test says, and a recorder of the compressor's
// notifications with the manual clock's time of each.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/notification_center.h"
#include "helper/pipeline/system_load_handler.h"
#include "protocol/notification_names.h"

namespace zephlore::testkit {

// The helper chooses its data folder once per process, so every test of a
// process shares one private home (data, settings, runtime files), made on
// first use and removed when the process ends.
inline const std::string& processTestHome() {
  static const std::string home = [] {
    std::string path = "/dev/shm/zephlore-pipeline-XXXXXX";
    if (!mkdtemp(path.data())) abort();
    for (const char* sub : {"/data", "/config", "/run"}) mkdir((path + sub).c_str(), 0700);
    setenv("HOME", path.c_str(), 1);
    setenv("XDG_DATA_HOME", (path + "/data").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (path + "/config").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (path + "/run").c_str(), 1);
    static std::string removal = path;
    atexit([] { std::filesystem::remove_all(removal); });
    return path;
  }();
  return home;
}

class FixedLoad final : public KRSystemLoadHandler {
 public:
  // `cpuForRead(n)` answers the n-th CPU reading (from 1).
  explicit FixedLoad(Clock& clock) : clock_(clock) {}
  void setCPULoad(float load) {
    std::lock_guard lock(mutex_);
    cpuForRead_ = [load](int) { return load; };
  }
  void setCPULoadByRead(std::function<float(int)> cpuForRead) {
    std::lock_guard lock(mutex_);
    cpuForRead_ = std::move(cpuForRead);
  }
  float currentCPULoad() const override {
    std::lock_guard lock(mutex_);
    readTimes_.push_back(clock_.now());
    changed_.notify_all();
    return cpuForRead_(static_cast<int>(readTimes_.size()));
  }
  float currentDiskLoad() const override { return 0.0f; }
  // Blocks until the CPU load has been read `n` times; their times.
  std::vector<TimePoint> waitForReads(size_t n) const {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return readTimes_.size() >= n; });
    return readTimes_;
  }

 private:
  Clock& clock_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  mutable std::vector<TimePoint> readTimes_;
  std::function<float(int)> cpuForRead_ = [](int) { return 0.0f; };
};

struct PostedNotification {
  std::string name;
  std::string path;
  int errorCode = 0;  // 0: no error in the user info
  TimePoint time;
};

class NotificationRecorder {
 public:
  NotificationRecorder(Clock& clock, NotificationCenter& center) : clock_(clock), center_(center) {
    id_ = center_.addObserver("", nullptr, [this](const Notification& n) {
      PostedNotification posted{n.name, "", 0, clock_.now()};
      if (const std::string* path = userInfoString(n.userInfo, kFileCompressedPathKey)) posted.path = *path;
      if (const Error* error = userInfoError(n.userInfo, kFileCompressedErrorKey)) posted.errorCode = error->code;
      std::lock_guard lock(mutex_);
      posted_.push_back(posted);
      changed_.notify_all();
    });
  }
  ~NotificationRecorder() { center_.removeObserver(id_); }

  std::vector<PostedNotification> named(const std::string& name) {
    std::lock_guard lock(mutex_);
    std::vector<PostedNotification> found;
    for (const PostedNotification& n : posted_) {
      if (n.name == name) found.push_back(n);
    }
    return found;
  }
  // Blocks until `count` notifications of `name` have been posted.
  void waitFor(const std::string& name, size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] {
      size_t seen = 0;
      for (const PostedNotification& n : posted_) seen += n.name == name;
      return seen >= count;
    });
  }
  void clear() {
    std::lock_guard lock(mutex_);
    posted_.clear();
  }

 private:
  Clock& clock_;
  NotificationCenter& center_;
  NotificationCenter::ObserverId id_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<PostedNotification> posted_;
};

}  // namespace zephlore::testkit
