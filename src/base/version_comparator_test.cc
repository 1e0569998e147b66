#include "base/version_comparator.h"

#include <gtest/gtest.h>

#include <tuple>

namespace zephlore {
namespace {

TEST(VersionComparator, SplitsIntoRunsOfOneKind) {
  const KRVersionComparator& c = KRVersionComparator::defaultComparator();
  EXPECT_EQ(&c, &KRVersionComparator::defaultComparator());
  using Parts = std::vector<std::string>;
  EXPECT_EQ(c.splitVersionString("1.10b3"), (Parts{"1", ".", "10", "b", "3"}));
  EXPECT_EQ(c.splitVersionString("1..2"), (Parts{"1", ".", ".", "2"}));
  EXPECT_EQ(c.splitVersionString("2.0 rc"), (Parts{"2", ".", "0", " rc"}));
  EXPECT_EQ(c.splitVersionString("\xc3\xa9t\xc3\xa9" "2"), (Parts{"\xc3\xa9t\xc3\xa9", "2"}));
  EXPECT_EQ(c.splitVersionString(""), Parts{});
  EXPECT_EQ(c.typeOfCharacter("."), VersionPartKind::kPeriod);
  EXPECT_EQ(c.typeOfCharacter("7"), VersionPartKind::kNumber);
  EXPECT_EQ(c.typeOfCharacter("b"), VersionPartKind::kString);
  EXPECT_EQ(c.typeOfCharacter(""), VersionPartKind::kString);
  EXPECT_EQ(static_cast<int32_t>(VersionPartKind::kString), 1);
}

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
}

}  // namespace
}  // namespace zephlore
