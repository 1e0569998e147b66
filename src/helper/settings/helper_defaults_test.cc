#include "helper/settings/helper_defaults.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/log.h"
#include "base/run_loop.h"
#include "testing/files.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::TestHome;
using testkit::writeFile;

std::string domainPath(const TestHome& home) {
  return home.configFolder() + "/com.quorvane.ZephloreHelper.plist";
}

void writeDomain(const TestHome& home, const std::string& dict_body) {
  writeFile(domainPath(home), "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + dict_body +
                                  "</dict></plist>");
}

// A value as a fresh reader of the file sees it.
plist_t fileValue(const TestHome& home, const char* key, PlistPtr& keep) {
  PlistReadResult file = readPlistFile(Env::system(), domainPath(home));
  keep = std::move(file.root);
  return keep ? plist_dict_get_item(keep.get(), key) : nullptr;
}

TEST(HelperDefaultsTest, FallbacksWithoutAFileAndNoFileWritten) {
  TestHome home;
  ScopedShared<KRHelperDefaults> fresh_defaults{Env::system()};
  KRHelperDefaults& defaults = KRHelperDefaults::sharedHelperDefaults();
  EXPECT_EQ(defaults.domainFileName(), domainPath(home));
  EXPECT_EQ(defaults.lastEventID(), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_FALSE(defaults.shouldRelaunchPrefs());
  EXPECT_TRUE(defaults.useSeamlessFileSwitch());
  EXPECT_FALSE(std::filesystem::exists(domainPath(home)));
}

TEST(HelperDefaultsTest, LastEventIDIsOnDiskWhenTheSetterReturns) {
  TestHome home;
  std::filesystem::remove(home.configFolder());  // a fresh account has none
  ScopedShared<KRHelperDefaults> fresh_defaults{Env::system()};
  KRHelperDefaults& defaults = KRHelperDefaults::sharedHelperDefaults();
  PlistPtr keep;
  // Values above the signed range survive the XML round trip.
  for (uint64_t id : {uint64_t{12345}, uint64_t{0xFFFFFFFF00000001ull}, uint64_t{0}}) {
    ASSERT_TRUE(defaults.setLastEventID(id));
    EXPECT_EQ(plistUnsignedValue(fileValue(home, "lastEventID", keep)), id);
    EXPECT_EQ(defaults.lastEventID(), id);
  }
}

TEST(HelperDefaultsTest, HandSetValuesAreHonouredAndNotOverwritten) {
  TestHome home;
  writeDomain(home, "<key>useSeamlessFileSwitch</key><false/><key>lastEventID</key><integer>77</integer>");
  ScopedShared<KRHelperDefaults> fresh_defaults{Env::system()};
  KRHelperDefaults& defaults = KRHelperDefaults::sharedHelperDefaults();
  EXPECT_FALSE(defaults.useSeamlessFileSwitch());
  EXPECT_EQ(defaults.lastEventID(), 77u);

  // An administrator edits the file while the helper runs; the helper then
  // stores its own value. Both end up in the file.
  writeDomain(home, "<key>useSeamlessFileSwitch</key><true/><key>lastEventID</key><integer>77</integer>");
  ASSERT_TRUE(defaults.setLastEventID(78));
  EXPECT_TRUE(defaults.useSeamlessFileSwitch());
  PlistPtr keep;
  EXPECT_EQ(plistBoolValue(fileValue(home, "useSeamlessFileSwitch", keep)), true);
  EXPECT_EQ(plistUnsignedValue(fileValue(home, "lastEventID", keep)), 78u);
}

TEST(HelperDefaultsTest, ShouldRelaunchPrefsIsWrittenOnTheNextTurnOfTheLoop) {
  TestHome home;
  ScopedShared<KRHelperDefaults> fresh_defaults{Env::system()};
  KRHelperDefaults& defaults = KRHelperDefaults::sharedHelperDefaults();
  defaults.setShouldRelaunchPrefs(true);
  EXPECT_TRUE(defaults.shouldRelaunchPrefs());
  EXPECT_FALSE(std::filesystem::exists(domainPath(home)));
  RunLoop::main().runUntilIdle();
  PlistPtr keep;
  EXPECT_EQ(plistBoolValue(fileValue(home, "shouldRelaunchPrefs", keep)), true);
}

TEST(HelperDefaultsTest, BadFilesGiveFallbacksAndOneLogLine) {
  TestHome home;
  writeDomain(home, "<key>lastEventID</key><string>soon</string><key>shouldRelaunchPrefs</key>"
                    "<array/>");
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  ScopedShared<KRHelperDefaults> fresh_defaults{Env::system()};
  KRHelperDefaults& defaults = KRHelperDefaults::sharedHelperDefaults();
  EXPECT_EQ(defaults.lastEventID(), KRHelperDefaults::kSinceNow);
  EXPECT_FALSE(defaults.shouldRelaunchPrefs());
  ASSERT_EQ(lines.size(), 1u);

  for (const std::string& bytes : {std::string("\x01\x02garbage"), std::string(""),
                                   std::string("<plist><array/></plist>")}) {
    lines.clear();
    writeFile(domainPath(home), bytes);
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_TRUE(defaults.useSeamlessFileSwitch());
    EXPECT_EQ(lines.size(), 1u) << bytes;
  }
}

}  // namespace
}  // namespace zephlore
