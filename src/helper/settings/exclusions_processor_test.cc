#include "helper/settings/exclusions_processor.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/log.h"
#include "testing/files.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::TestHome;
using testkit::writeFile;

std::string stringArray(const std::vector<std::string>& items) {
  std::string body;
  for (const std::string& item : items) body += "<string>" + item + "</string>";
  return "<?xml version=\"1.0\"?><plist version=\"1.0\"><array>" + body + "</array></plist>";
}

class ExclusionsProcessorTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(home.dataFolder()); }
  std::string pathsFile() const { return home.dataFolder() + "/excludedPaths.plist"; }
  std::string extensionsFile() const { return home.dataFolder() + "/excludedExtensions.plist"; }

  TestHome home;
  ManualClock clock;
  RunLoop loop{clock};
  DistributedNotificationCenter bus;  // none in this home: the lists are read at once only
};

TEST_F(ExclusionsProcessorTest, PathsArePlainPrefixesAndExtensionsAreNormalised) {
  writeFile(pathsFile(), stringArray({"/a/b", "", "/c/d/"}));
  writeFile(extensionsFile(), stringArray({"Jpg", ".", "..TXT", "", "tar.GZ", "..."}));
  KRExclusionsProcessor processor{Env::system(), home.dataFolder(), bus, loop};

  EXPECT_EQ(processor.excludedPaths(), (std::vector<std::string>{"/a/b", "/c/d/"}));
  EXPECT_EQ(processor.excludedExtensions(),
            (std::vector<std::string>{".jpg", ".txt", ".tar.gz"}));
  // No separator test: /a/b also covers /a/bc.
  EXPECT_TRUE(processor.isExcluded("/a/b"));
  EXPECT_TRUE(processor.isExcluded("/a/b/x"));
  EXPECT_TRUE(processor.isExcluded("/a/bc/x"));
  EXPECT_FALSE(processor.isExcluded("/a/c"));
  EXPECT_FALSE(processor.isExcluded("/A/b/x"));  // paths compare case-sensitively
  EXPECT_TRUE(processor.isExcluded("/x/photo.JPG"));
  EXPECT_TRUE(processor.isExcluded("/x/photo.jpg"));
  EXPECT_TRUE(processor.isExcluded("/x/A.Tar.Gz"));
  EXPECT_FALSE(processor.isExcluded("/x/photojpg"));
  EXPECT_FALSE(processor.isExcluded("/x/file."));  // the lone dot was dropped

  EXPECT_EQ(KRExclusionsProcessor::normalizedExtension("TXT"), ".txt");
  EXPECT_EQ(KRExclusionsProcessor::normalizedExtension("..txt"), ".txt");
  EXPECT_EQ(KRExclusionsProcessor::normalizedExtension(".."), std::nullopt);
}

TEST_F(ExclusionsProcessorTest, PathsInSymlinkedFoldersMatchByTheirResolvedForm) {
  std::string real = home.root() + "/real";
  std::string link = home.root() + "/link";
  std::filesystem::create_directories(real + "/sub");
  std::filesystem::create_directory_symlink(real, link);
  writeFile(real + "/sub/file.txt", "x");
  writeFile(real + "/other.txt", "x");
  // The user chose the folder through the link.
  writeFile(pathsFile(), stringArray({link + "/sub"}));
  KRExclusionsProcessor processor{Env::system(), home.dataFolder(), bus, loop};

  EXPECT_EQ(processor.excludedPaths(), std::vector<std::string>{real + "/sub"});
  EXPECT_TRUE(processor.isExcluded(real + "/sub/file.txt"));
  EXPECT_TRUE(processor.isExcluded(link + "/sub/file.txt"));
  EXPECT_FALSE(processor.isExcluded(link + "/other.txt"));
}

TEST_F(ExclusionsProcessorTest, NoFilesExcludeNothingAndUpdatesReplaceTheListsFromTheFiles) {
  KRExclusionsProcessor processor{Env::system(), home.dataFolder(), bus, loop};
  EXPECT_TRUE(processor.excludedPaths().empty());
  EXPECT_TRUE(processor.excludedExtensions().empty());
  EXPECT_FALSE(processor.isExcluded(""));
  writeFile(extensionsFile(), stringArray({"mp3"}));
  writeFile(pathsFile(), stringArray({"/music"}));
  EXPECT_FALSE(processor.isExcluded("/x/a.mp3"));  // not until told
  processor.readFiles();
  EXPECT_TRUE(processor.isExcluded("/x/a.mp3"));
  EXPECT_TRUE(processor.isExcluded("/music/a.flac"));

  writeFile(extensionsFile(), stringArray({"flac"}));
  processor.excludedExtensionsUpdate();
  EXPECT_FALSE(processor.isExcluded("/x/a.mp3"));
  EXPECT_TRUE(processor.isExcluded("/x/a.flac"));

  std::filesystem::remove(pathsFile());
  processor.excludedPathsUpdate();
  EXPECT_TRUE(processor.excludedPaths().empty());
  EXPECT_FALSE(processor.isExcluded("/music/a.wav"));
}

TEST_F(ExclusionsProcessorTest, BadListFilesGiveNoListAndOneLogLine) {
  KRExclusionsProcessor processor{Env::system(), home.dataFolder(), bus, loop};
  const std::string header = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  struct Case {
    std::string bytes;
    size_t entries;  // what survives
  };
  const std::vector<Case> cases = {
      {header + "<integer>5</integer></plist>", 0},  // a number where the array belongs
      {header + "<array><integer>1</integer><integer>2</integer></array></plist>", 0},
      {header + "<array><string>png</string><dict/></array></plist>", 1},  // keeps the string
      {std::string("\xde\xad\xbe\xef\x00\x01", 6), 0},
      {"", 0},
      {header + "<array><string>png", 0},
  };
  for (const Case& c : cases) {
    writeFile(extensionsFile(), stringArray({"jpg"}));
    processor.excludedExtensionsUpdate();
    ASSERT_TRUE(processor.isExcluded("/x/a.jpg"));
    writeFile(extensionsFile(), c.bytes);
    std::vector<std::string> lines;
    {
      ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
      processor.excludedExtensionsUpdate();
    }
    EXPECT_FALSE(processor.isExcluded("/x/a.jpg")) << c.bytes;
    EXPECT_EQ(processor.excludedExtensions().size(), c.entries) << c.bytes;
    EXPECT_EQ(lines.size(), 1u) << c.bytes;
  }
}

}  // namespace
}  // namespace zephlore
