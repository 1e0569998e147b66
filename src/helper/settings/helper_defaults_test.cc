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

class HelperDefaultsTest : public ::testing::Test {
 protected:
  std::string path() const { return home.configFolder() + "/com.quorvane.ZephloreHelper.plist"; }
  void writeDomain(const std::string& dict_body) {
    writeFile(path(), "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + dict_body + "</dict></plist>");
  }
  // A value as a fresh reader of the file sees it.
  plist_t fileValue(const char* key) {
    kept = readPlistFile(Env::system(), path()).root;
    return kept ? plist_dict_get_item(kept.get(), key) : nullptr;
  }
  KRHelperDefaults& start() {
    return started.emplace(Env::system());
  }

  TestHome home;
  PlistPtr kept;
  std::optional<KRHelperDefaults> started;
};

TEST_F(HelperDefaultsTest, FallbacksWithoutAFileAndNoFileWrittenBeforeTheNextTurnOfTheLoop) {
  KRHelperDefaults& defaults = start();
  EXPECT_EQ(defaults.domainFileName(), path());
  EXPECT_EQ(defaults.lastEventID(), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_FALSE(defaults.shouldRelaunchPrefs());
  EXPECT_TRUE(defaults.useSeamlessFileSwitch());
  EXPECT_FALSE(std::filesystem::exists(path()));

  ManualClock clock;
  RunLoop loop(clock);
  defaults.setShouldRelaunchPrefs(true, loop);
  EXPECT_TRUE(defaults.shouldRelaunchPrefs());
  EXPECT_FALSE(std::filesystem::exists(path()));
  loop.runUntilIdle();
  EXPECT_EQ(plistBoolValue(fileValue("shouldRelaunchPrefs")), true);
}

TEST_F(HelperDefaultsTest, LastEventIDIsOnDiskWhenTheSetterReturns) {
  std::filesystem::remove(home.configFolder());  // a fresh account has none
  KRHelperDefaults& defaults = start();
  // Values above the signed range survive the XML round trip.
  for (uint64_t id : {uint64_t{12345}, uint64_t{0xFFFFFFFF00000001ull}, uint64_t{0}}) {
    ASSERT_TRUE(defaults.setLastEventID(id));
    EXPECT_EQ(plistUnsignedValue(fileValue("lastEventID")), id);
    EXPECT_EQ(defaults.lastEventID(), id);
  }
}

TEST_F(HelperDefaultsTest, HandSetValuesAreHonouredAndNotOverwritten) {
  writeDomain("<key>useSeamlessFileSwitch</key><false/><key>lastEventID</key><integer>77</integer>");
  KRHelperDefaults& defaults = start();
  EXPECT_FALSE(defaults.useSeamlessFileSwitch());
  EXPECT_EQ(defaults.lastEventID(), 77u);

  // An administrator edits the file while the helper runs; the helper then
  // stores its own value. Both end up in the file.
  writeDomain("<key>useSeamlessFileSwitch</key><true/><key>lastEventID</key><integer>77</integer>");
  ASSERT_TRUE(defaults.setLastEventID(78));
  EXPECT_TRUE(defaults.useSeamlessFileSwitch());
  EXPECT_EQ(plistBoolValue(fileValue("useSeamlessFileSwitch")), true);
  EXPECT_EQ(plistUnsignedValue(fileValue("lastEventID")), 78u);
}

TEST_F(HelperDefaultsTest, BadFilesGiveFallbacksAndOneLogLine) {
  writeDomain("<key>lastEventID</key><string>soon</string><key>shouldRelaunchPrefs</key><array/>");
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  KRHelperDefaults& defaults = start();
  EXPECT_EQ(defaults.lastEventID(), KRHelperDefaults::kSinceNow);
  EXPECT_FALSE(defaults.shouldRelaunchPrefs());
  ASSERT_EQ(lines.size(), 1u);

  for (const std::string& bytes : {std::string("\x01\x02garbage"), std::string(""),
                                   std::string("<plist><array/></plist>")}) {
    lines.clear();
    writeFile(path(), bytes);
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_TRUE(defaults.useSeamlessFileSwitch());
    EXPECT_EQ(lines.size(), 1u) << bytes;
  }
}

}  // namespace
}  // namespace zephlore
