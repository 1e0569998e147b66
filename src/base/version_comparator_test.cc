#include "base/version_comparator.h"

#include <gtest/gtest.h>

#include <tuple>

namespace zephlore {
namespace {

TEST(VersionComparator, ComparesPartByPart) {
  const KRVersionComparator& c = KRVersionComparator::defaultComparator();
  const std::tuple<const char*, const char*, int> cases[] = {
      {"1.0", "1.0", 0},
      {"1.0", "1.0.1", -1},
      {"1.0", "1.0b1", 1},  // a text part marks a pre-release
      {"1.10", "1.9", 1},   // numbers, not text
      {"1.0a", "1.0b", -1},
      {"1..2", "1.2", -1},  // a period against a number
      {"1.2", "1..2", 1},
      {"1.0b1", "1.0", -1},
      {"1.0.1", "1.0", 1},
      {"1.0B", "1.0a", -1},  // case-sensitive
      {"2", "10", -1},
      {"", "", 0},
      {"", "1", -1},
      {"", "beta", 1},
      {"99999999999999999999999", "99999999999999999999998", 0},  // both saturate
  };
  for (const auto& [a, b, expected] : cases) {
    EXPECT_EQ(c.compareVersion(a, b), expected) << a << " vs " << b;
  }
  // Multi-byte text stays one run, not split mid-character.
  EXPECT_EQ(c.splitVersionString("\xc3\xa9t\xc3\xa9" "2"),
            (std::vector<std::string>{"\xc3\xa9t\xc3\xa9", "2"}));
}

}  // namespace
}  // namespace zephlore
