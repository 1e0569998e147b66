// Test support for the history's tests (header only): a recorder of desktop
// notices and a scratch folder on tmpfs.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "helper/notices/notice_bridge.h"

namespace zephlore::testkit {

class RecordingSender : public NoticeSender {
 public:
  void send(const Notice& notice) override {
    std::lock_guard<std::mutex> lock(mutex);
    notices.push_back(notice);
  }
  std::vector<Notice> taken() {
    std::lock_guard<std::mutex> lock(mutex);
    return notices;
  }
  std::mutex mutex;
  std::vector<Notice> notices;
};

// A folder on /dev/shm (real directories, real inodes), removed at the end.
class ShmFolder {
 public:
  ShmFolder() {
    char pattern[] = "/dev/shm/zephlore-history-XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~ShmFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ShmFolder(const ShmFolder&) = delete;
  ShmFolder& operator=(const ShmFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string make(const std::string& relative) const {
    std::string full = path_ + "/" + relative;
    std::filesystem::create_directories(full);
    return full;
  }

 private:
  std::string path_;
};

}  // namespace zephlore::testkit
