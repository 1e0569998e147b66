#include "helper/settings/defaults_controller.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/log.h"
#include "platform/fuse_availability.h"
#include "testing/files.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::TestHome;
using testkit::writeFile;

std::string defaultsPath(const TestHome& home) { return home.dataFolder() + "/defaults.plist"; }

// The file as a dictionary, straight from disk.
PlistPtr fileDictionary(const TestHome& home) {
  PlistReadResult file = readPlistFile(Env::system(), defaultsPath(home));
  EXPECT_EQ(file.status, PlistReadStatus::kOk);
  return std::move(file.root);
}

std::optional<bool> fileBool(const TestHome& home, const char* key) {
  PlistPtr dict = fileDictionary(home);
  return dict ? plistBoolValue(plist_dict_get_item(dict.get(), key)) : std::nullopt;
}

void writeDefaults(const TestHome& home, const std::string& dict_body) {
  std::filesystem::create_directories(home.dataFolder());
  writeFile(defaultsPath(home), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n"
                                "<dict>" + dict_body + "</dict></plist>\n");
}

TEST(DefaultsControllerTest, FirstStartReadsAndWritesTheBuiltInDefaults) {
  TestHome home;
  ScopedShared<KRDefaultsController> fresh_defaults{Env::system()};
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  EXPECT_TRUE(defaults.firstRun());
  EXPECT_TRUE(defaults.helperActive());
  EXPECT_TRUE(defaults.autorunAtLogin());
  EXPECT_TRUE(defaults.checkForUpdates());
  EXPECT_TRUE(defaults.visible());
  // The view is on by default wherever this machine can mount one.
  EXPECT_EQ(defaults.transparentView(), fuseUsable());
  PlistPtr dict = fileDictionary(home);
  ASSERT_TRUE(dict);
  EXPECT_EQ(plist_dict_get_size(dict.get()), 7u);
  plist_t aliases = plist_dict_get_item(dict.get(), "folderAliases");
  ASSERT_NE(aliases, nullptr);
  EXPECT_EQ(plist_get_node_type(aliases), PLIST_ARRAY);
  EXPECT_EQ(&defaults, &KRDefaultsController::sharedDefaultsController());
}

TEST(DefaultsControllerTest, AFileWithOnlyActiveFallsBackKeyByKeyAndStaysAsItIs) {
  TestHome home;
  writeDefaults(home, "<key>active</key><false/>");
  ScopedShared<KRDefaultsController> fresh_defaults{Env::system()};
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  EXPECT_FALSE(defaults.helperActive());
  EXPECT_TRUE(defaults.visible());
  EXPECT_TRUE(defaults.checkForUpdates());
  EXPECT_TRUE(defaults.autorunAtLogin());
  EXPECT_TRUE(defaults.firstRun());
  // The built-in values are not merged into the working copy or the file.
  EXPECT_EQ(plist_dict_get_size(defaults.defaults().get()), 1u);
  EXPECT_EQ(plist_dict_get_size(fileDictionary(home).get()), 1u);

  // A setter writes at once; the file then has exactly what is set.
  EXPECT_TRUE(defaults.setVisible(false));
  EXPECT_EQ(fileBool(home, "visible"), false);
  EXPECT_EQ(fileBool(home, "active"), false);
  EXPECT_EQ(plist_dict_get_size(fileDictionary(home).get()), 2u);
  EXPECT_TRUE(defaults.setTransparentView(false));
  EXPECT_FALSE(defaults.transparentView());
  EXPECT_EQ(fileBool(home, "transparentView"), false);
  // No temporary file is left beside it.
  int entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(home.dataFolder())) {
    (void)entry;
    ++entries;
  }
  EXPECT_EQ(entries, 1);
}

TEST(DefaultsControllerTest, AnEmptyDictionaryIsTreatedLikeNoFile) {
  TestHome home;
  writeDefaults(home, "");
  ScopedShared<KRDefaultsController> fresh_defaults{Env::system()};
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  EXPECT_EQ(plist_dict_get_size(defaults.defaults().get()), 7u);
  EXPECT_EQ(plist_dict_get_size(fileDictionary(home).get()), 7u);
  EXPECT_TRUE(defaults.helperActive());
}

TEST(DefaultsControllerTest, ReloadSeesAnotherProcessChangeOnlyWhenAsked) {
  TestHome home;
  ScopedShared<KRDefaultsController> fresh_defaults{Env::system()};
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  writeDefaults(home, "<key>active</key><false/><key>visible</key><integer>0</integer>");
  EXPECT_TRUE(defaults.helperActive());
  defaults.reload();
  EXPECT_FALSE(defaults.helperActive());
  EXPECT_FALSE(defaults.visible());
}

TEST(DefaultsControllerTest, BadFilesGiveBuiltInDefaultsAndOneLogLine) {
  TestHome home;
  ScopedShared<KRDefaultsController> fresh_defaults{Env::system()};
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  const std::string header = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  const std::vector<std::string> bad_files = {
      "",                                                     // empty
      std::string("\x00\x01\xff\xfe garbage\x80", 13),        // binary garbage
      "bplist00\x01\x02\x03 not really",                      // a lying binary header
      header + "<dict><key>active</key><false/>",             // cut short
      header + "<array><integer>1</integer></array></plist>",  // not a dictionary
      header + "<integer>0</integer></plist>",
  };
  for (const std::string& bytes : bad_files) {
    writeDefaults(home, "<key>active</key><false/>");
    defaults.reload();
    ASSERT_FALSE(defaults.helperActive());
    writeFile(defaultsPath(home), bytes);
    std::vector<std::string> lines;
    {
      ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
      defaults.reload();
    }
    EXPECT_TRUE(defaults.helperActive()) << bytes;
    EXPECT_TRUE(defaults.visible()) << bytes;
    EXPECT_EQ(lines.size(), 1u) << bytes;
  }
}

TEST(DefaultsControllerTest, MistypedValuesAreReadByTheirOwnConversionOrFallBack) {
  TestHome home;
  writeDefaults(home,
                "<key>active</key><array><false/></array>"  // unusable: built-in YES
                "<key>visible</key><string>NO</string>"     // a string reads as NO
                "<key>checkUpdates</key><integer>0</integer>"
                "<key>runAtLogin</key><data>AAAA</data>"    // unusable: built-in YES
                "<key>firstRun</key><string>yes</string>");
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  ScopedShared<KRDefaultsController> fresh_defaults{Env::system()};
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  EXPECT_TRUE(defaults.helperActive());
  EXPECT_FALSE(defaults.visible());
  EXPECT_FALSE(defaults.checkForUpdates());
  EXPECT_TRUE(defaults.autorunAtLogin());
  EXPECT_TRUE(defaults.firstRun());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("active"), std::string::npos);
  EXPECT_NE(lines[0].find("runAtLogin"), std::string::npos);
  EXPECT_EQ(lines[0].find("visible"), std::string::npos);
}

TEST(DefaultsControllerTest, AFailedWriteKeepsTheValueAndLogsTheFile) {
  TestHome home;
  ScopedShared<KRDefaultsController> fresh_defaults{Env::system()};
  KRDefaultsController& defaults = KRDefaultsController::sharedDefaultsController();
  // A folder where the file should be cannot be replaced by rename().
  std::filesystem::remove(defaultsPath(home));
  std::filesystem::create_directory(defaultsPath(home));
  std::filesystem::create_directory(defaultsPath(home) + "/keep");
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(defaults.setHelperActive(false));
  EXPECT_FALSE(defaults.helperActive());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "Could not write preferences to file: " + defaultsPath(home));
}

}  // namespace
}  // namespace zephlore
