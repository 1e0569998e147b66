// KRVersionComparator: orders version strings such as "1.10b3" part by part:
// runs of digits compare as numbers, runs of other characters as text, and a
// period is a part of its own. Kept for the update check, which must tell
// whether an offered version is newer than the running one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zephlore {

enum class VersionPartKind : int32_t { kNumber = 0, kString = 1, kPeriod = 2 };

class KRVersionComparator {
 public:
  // The shared comparator (made on first use, never destroyed).
  static KRVersionComparator& defaultComparator();

  // "." is a period, a part starting with a decimal digit a number, anything
  // else (also "") a string.
  VersionPartKind typeOfCharacter(std::string_view character) const;
  // "1.10b3" -> {"1", ".", "10", "b", "3"}; "" -> {}.
  std::vector<std::string> splitVersionString(std::string_view version) const;
  // -1 when `a` is older than `b`, 0 when equal, 1 when newer. A text part
  // marks a pre-release: 1.0 is newer than 1.0b1.
  int compareVersion(std::string_view a, std::string_view b) const;

  KRVersionComparator() = default;
  KRVersionComparator(const KRVersionComparator&) = delete;
  KRVersionComparator& operator=(const KRVersionComparator&) = delete;
};

}  // namespace zephlore
