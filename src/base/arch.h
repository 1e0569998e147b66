// QVArch: operating-system version queries. On Linux the version is the
// kernel release from uname ("6.1.0-18-amd64" -> 6, 1, 0). The named
// queries keep their historical rules (they look for major version 10), so
// they answer false here; nothing on Linux depends on them for behaviour.
// Kept for the diagnostics that name the system a report came from
// (getOperatingSystemVersionString).
#pragma once

#include <optional>
#include <string>

namespace zephlore {

struct OSVersion {
  std::optional<int> major, minor, bugFix;  // none: could not be learnt
};

class QVArch {
 public:
  QVArch() = delete;

  static OSVersion currentVersion();
  // "6.1.0-18-amd64" -> {6, 1, 0}; the parts that are not numbers stay none.
  static OSVersion parseKernelRelease(const std::string& release);

  static bool runningOnTigerOrLater() { return runningOnTigerOrLater(currentVersion()); }
  static bool runningOnLeopardOrLater() { return runningOnLeopardOrLater(currentVersion()); }
  static bool runningOnLeopard() { return runningOnLeopard(currentVersion()); }
  static bool runningOnSnowLeopardOrLater() {
    return runningOnSnowLeopardOrLater(currentVersion());
  }
  static bool runningOnSnowLeopard() { return runningOnSnowLeopard(currentVersion()); }
  // "major.minor.bugfix", or "999999" when that cannot be learnt.
  static std::string getOperatingSystemVersionString() {
    return getOperatingSystemVersionString(currentVersion());
  }

  // The same answers for a given version.
  static bool runningOnTigerOrLater(const OSVersion& v);
  static bool runningOnLeopardOrLater(const OSVersion& v);
  static bool runningOnLeopard(const OSVersion& v);
  static bool runningOnSnowLeopardOrLater(const OSVersion& v);
  static bool runningOnSnowLeopard(const OSVersion& v);
  static std::string getOperatingSystemVersionString(const OSVersion& v);
};

}  // namespace zephlore
