#include "helper/lifecycle/file_in_process_watchdog.h"

#include "base/util.h"

namespace zephlore {

std::string KRFileInProcessWatchdog::watchdogFilename() {
  std::optional<std::string> folder = KRUtil::applicationSupportFolder();
  return folder ? *folder + "/inprocess.kr" : "";
}

SharedInstance<KRFileInProcessWatchdog>& KRFileInProcessWatchdog::sharedInstance() {
  static SharedInstance<KRFileInProcessWatchdog> instance([] { return new KRFileInProcessWatchdog(); });
  return instance;
}

KRFileInProcessWatchdog::KRFileInProcessWatchdog() : record_(watchdogFilename(), Env::shared()) {}

bool KRFileInProcessWatchdog::hasInProcessFileFromPreviousSession() const {
  return record_.previous().path.has_value();
}

std::optional<std::string> KRFileInProcessWatchdog::inProcessFileFromPreviousSession() const {
  return record_.previous().path;
}

int64_t KRFileInProcessWatchdog::expectedSizeOfInProcessFile() const {
  return record_.previous().expectedSize;
}

void KRFileInProcessWatchdog::willProcessFile(const std::string& path) {
  record_.willProcessFile(path);
}

void KRFileInProcessWatchdog::didProcessFile(const std::string&) { reset(); }

void KRFileInProcessWatchdog::reset() { record_.reset(); }

}  // namespace zephlore
