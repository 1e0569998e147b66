#include "base/arch.h"

#include <sys/utsname.h>

#include <cstdio>

namespace zephlore {
namespace {

// Reads a run of digits at `pos`; none if there is none or it is too long.
std::optional<int> numberAt(const std::string& text, size_t& pos) {
  int value = 0;
  size_t start = pos;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    if (pos - start >= 9) return std::nullopt;
    value = value * 10 + (text[pos++] - '0');
  }
  if (pos == start) return std::nullopt;
  return value;
}

bool known(const OSVersion& v) { return v.major && v.minor; }

}  // namespace

OSVersion QVArch::parseKernelRelease(const std::string& release) {
  OSVersion v;
  size_t pos = 0;
  v.major = numberAt(release, pos);
  if (!v.major || pos >= release.size() || release[pos] != '.') return v;
  v.minor = numberAt(release, ++pos);
  if (!v.minor || pos >= release.size() || release[pos] != '.') return v;
  v.bugFix = numberAt(release, ++pos);
  return v;
}

OSVersion QVArch::currentVersion() {
  struct utsname name;
  if (uname(&name) != 0) return {};
  return parseKernelRelease(name.release);
}

bool QVArch::runningOnTigerOrLater(const OSVersion& v) {
  return known(v) && *v.major == 10 && *v.minor > 3;
}

bool QVArch::runningOnLeopardOrLater(const OSVersion& v) {
  return known(v) && *v.major == 10 && *v.minor > 4;
}

// Tests minor 6, the same as runningOnSnowLeopard: kept as it always was.
bool QVArch::runningOnLeopard(const OSVersion& v) {
  return known(v) && *v.major == 10 && *v.minor == 6;
}

bool QVArch::runningOnSnowLeopardOrLater(const OSVersion& v) {
  return known(v) && *v.major == 10 && *v.minor > 5;
}

bool QVArch::runningOnSnowLeopard(const OSVersion& v) {
  return known(v) && *v.major == 10 && *v.minor == 6;
}

std::string QVArch::getOperatingSystemVersionString(const OSVersion& v) {
  if (!v.major || !v.minor || !v.bugFix) return "999999";
  char buf[48];
  snprintf(buf, sizeof buf, "%i.%i.%i", *v.major, *v.minor, *v.bugFix);
  return buf;
}

}  // namespace zephlore
