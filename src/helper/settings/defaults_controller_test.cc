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

class DefaultsControllerTest : public ::testing::Test {
 protected:
  std::string path() const { return home.dataFolder() + "/defaults.plist"; }
  void writeDefaults(const std::string& dict_body) {
    std::filesystem::create_directories(home.dataFolder());
    writeFile(path(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>" + dict_body +
                          "</dict></plist>\n");
  }
  // The file as a dictionary, straight from disk.
  PlistPtr fileDictionary() {
    PlistReadResult file = readPlistFile(Env::system(), path());
    EXPECT_EQ(file.status, PlistReadStatus::kOk);
    return std::move(file.root);
  }
  std::optional<bool> fileBool(const char* key) {
    PlistPtr dict = fileDictionary();
    return dict ? plistBoolValue(plist_dict_get_item(dict.get(), key)) : std::nullopt;
  }
  // A controller started now, as at the helper's start.
  KRDefaultsController& start() {
    return started.emplace(Env::system(), home.dataFolder());
  }

  TestHome home;
  std::optional<KRDefaultsController> started;
};

// No file, or one with an empty dictionary: the built-in defaults, written.
TEST_F(DefaultsControllerTest, FirstStartReadsAndWritesTheBuiltInDefaults) {
  for (bool emptyFile : {false, true}) {
    SCOPED_TRACE(emptyFile ? "empty dictionary" : "no file");
    std::filesystem::remove(path());
    if (emptyFile) writeDefaults("");
    KRDefaultsController& defaults = start();
    EXPECT_TRUE(defaults.firstRun());
    EXPECT_TRUE(defaults.helperActive());
    EXPECT_TRUE(defaults.autorunAtLogin());
    EXPECT_TRUE(defaults.checkForUpdates());
    EXPECT_TRUE(defaults.visible());
    // The view is on by default wherever this machine can mount one.
    EXPECT_EQ(defaults.transparentView(), fuseUsable());
    EXPECT_EQ(plist_dict_get_size(defaults.defaults().get()), 7u);
    PlistPtr dict = fileDictionary();
    ASSERT_TRUE(dict);
    EXPECT_EQ(plist_dict_get_size(dict.get()), 7u);
    plist_t aliases = plist_dict_get_item(dict.get(), "folderAliases");
    ASSERT_NE(aliases, nullptr);
    EXPECT_EQ(plist_get_node_type(aliases), PLIST_ARRAY);
    started.reset();
  }
}

TEST_F(DefaultsControllerTest, AFileWithOnlyActiveFallsBackKeyByKeyAndStaysAsItIs) {
  writeDefaults("<key>active</key><false/>");
  KRDefaultsController& defaults = start();
  EXPECT_FALSE(defaults.helperActive());
  EXPECT_TRUE(defaults.visible());
  EXPECT_TRUE(defaults.checkForUpdates());
  EXPECT_TRUE(defaults.autorunAtLogin());
  EXPECT_TRUE(defaults.firstRun());
  // The built-in values are not merged into the working copy or the file.
  EXPECT_EQ(plist_dict_get_size(defaults.defaults().get()), 1u);
  EXPECT_EQ(plist_dict_get_size(fileDictionary().get()), 1u);

  // A setter writes at once; the file then has exactly what is set.
  EXPECT_TRUE(defaults.setVisible(false));
  EXPECT_EQ(fileBool("visible"), false);
  EXPECT_EQ(fileBool("active"), false);
  EXPECT_EQ(plist_dict_get_size(fileDictionary().get()), 2u);
  EXPECT_TRUE(defaults.setTransparentView(false));
  EXPECT_FALSE(defaults.transparentView());
  EXPECT_EQ(fileBool("transparentView"), false);
  // No temporary file is left beside it.
  const auto entries = std::distance(std::filesystem::directory_iterator(home.dataFolder()), {});
  EXPECT_EQ(entries, 1);

  // Another process's change is seen only when asked.
  writeDefaults("<key>active</key><true/><key>visible</key><integer>1</integer>");
  EXPECT_FALSE(defaults.helperActive());
  defaults.reload();
  EXPECT_TRUE(defaults.helperActive());
  EXPECT_TRUE(defaults.visible());
}

TEST_F(DefaultsControllerTest, BadFilesGiveBuiltInDefaultsAndOneLogLine) {
  KRDefaultsController& defaults = start();
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
    writeDefaults("<key>active</key><false/>");
    defaults.reload();
    ASSERT_FALSE(defaults.helperActive());
    writeFile(path(), bytes);
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

TEST_F(DefaultsControllerTest, MistypedValuesAreReadByTheirOwnConversionOrFallBack) {
  writeDefaults("<key>active</key><array><false/></array>"  // unusable: built-in YES
                "<key>visible</key><string>NO</string>"     // a string reads as NO
                "<key>checkUpdates</key><integer>0</integer>"
                "<key>runAtLogin</key><data>AAAA</data>"    // unusable: built-in YES
                "<key>firstRun</key><string>yes</string>");
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  KRDefaultsController& defaults = start();
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

TEST_F(DefaultsControllerTest, AFailedWriteKeepsTheValueAndLogsTheFile) {
  KRDefaultsController& defaults = start();
  // A folder where the file should be cannot be replaced by rename().
  std::filesystem::remove(path());
  std::filesystem::create_directories(path() + "/keep");
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(defaults.setHelperActive(false));
  EXPECT_FALSE(defaults.helperActive());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "Could not write preferences to file: " + path());
}

}  // namespace
}  // namespace zephlore
