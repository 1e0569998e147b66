#include "helper/lifecycle/file_in_process_watchdog.h"

namespace zephlore {

std::string KRFileInProcessWatchdog::watchdogFilename(const std::string& dataFolder) {
  return dataFolder + "/inprocess.kr";
}

KRFileInProcessWatchdog::KRFileInProcessWatchdog(Env& env, const std::string& dataFolder)
    : record_(watchdogFilename(dataFolder), env) {}

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
