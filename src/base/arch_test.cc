#include "base/arch.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

namespace zephlore {
namespace {

OSVersion version(int major, int minor, int bugfix) { return OSVersion{major, minor, bugfix}; }

TEST(Arch, KernelReleaseParsing) {
  OSVersion v = QVArch::parseKernelRelease("6.1.0-18-amd64");
  EXPECT_EQ(v.major, 6);
  EXPECT_EQ(v.minor, 1);
  EXPECT_EQ(v.bugFix, 0);
  EXPECT_EQ(QVArch::getOperatingSystemVersionString(v), "6.1.0");

  v = QVArch::parseKernelRelease("5.15-custom");
  EXPECT_EQ(v.minor, 15);
  EXPECT_FALSE(v.bugFix);
  EXPECT_EQ(QVArch::getOperatingSystemVersionString(v), "999999");
  for (const char* bad : {"", "linux", "6", ".1.2", "99999999999.1.1"}) {
    EXPECT_EQ(QVArch::getOperatingSystemVersionString(QVArch::parseKernelRelease(bad)), "999999")
        << bad;
  }

  struct utsname name;
  ASSERT_EQ(uname(&name), 0);
  const std::string shown = QVArch::getOperatingSystemVersionString();
  EXPECT_EQ(std::string(name.release).rfind(shown, 0), 0u) << shown << " vs " << name.release;
  EXPECT_FALSE(QVArch::runningOnLeopardOrLater());  // no kernel is version 10.x
}

TEST(Arch, HistoricalRulesKeptAsTheyWere) {
  EXPECT_FALSE(QVArch::runningOnLeopard(version(10, 5, 8)));
  EXPECT_TRUE(QVArch::runningOnLeopard(version(10, 6, 0)));  // the same test as Snow Leopard
  EXPECT_TRUE(QVArch::runningOnSnowLeopard(version(10, 6, 8)));
  EXPECT_FALSE(QVArch::runningOnSnowLeopard(version(10, 7, 0)));
  EXPECT_TRUE(QVArch::runningOnTigerOrLater(version(10, 4, 0)));
  EXPECT_FALSE(QVArch::runningOnTigerOrLater(version(10, 3, 9)));
  EXPECT_TRUE(QVArch::runningOnLeopardOrLater(version(10, 5, 0)));
  EXPECT_FALSE(QVArch::runningOnLeopardOrLater(version(11, 0, 0)));  // major must be 10
  EXPECT_TRUE(QVArch::runningOnSnowLeopardOrLater(version(10, 6, 0)));
  EXPECT_FALSE(QVArch::runningOnSnowLeopardOrLater(version(10, 5, 0)));
  EXPECT_FALSE(QVArch::runningOnTigerOrLater(OSVersion{10, std::nullopt, std::nullopt}));
}

}  // namespace
}  // namespace zephlore
