#include "base/util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/log.h"

namespace zephlore {
namespace {

namespace fs = std::filesystem;

// A scratch folder in memory, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/dev/shm/zephlore-util-XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

mode_t modeOf(const std::string& path) {
  struct stat st;
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

TEST(UtilDataFolder, OlderFolderNamesWinInOrderThenZephloreIsCreated) {
  TempDir tmp;
  const std::string base = tmp.path();
  Error error;

  // A plain file called "Krimble" is not a folder and is passed over.
  std::ofstream(base + "/Krimble") << "x";
  auto folder = KRUtil::dataFolderIn(base, &error);
  ASSERT_TRUE(folder) << error.message;
  EXPECT_EQ(*folder, base + "/Zephlore");
  EXPECT_EQ(modeOf(*folder), 0700u);

  fs::create_directory(base + "/Krimbler");
  EXPECT_EQ(KRUtil::dataFolderIn(base, &error), base + "/Krimbler");
  fs::remove(base + "/Krimble");
  fs::create_directory(base + "/Krimble");
  EXPECT_EQ(KRUtil::dataFolderIn(base, &error), base + "/Krimble");

  // No intermediate folders are made for the data folder itself.
  EXPECT_FALSE(KRUtil::dataFolderIn(base + "/missing/deeper", &error));
  EXPECT_NE(error.message.find("cannot create the data folder"), std::string::npos);
  EXPECT_FALSE(fs::exists(base + "/missing"));

  // "Zephlore" taken by a file: a clear failure, not a crash.
  TempDir other;
  std::ofstream(other.path() + "/Zephlore") << "x";
  EXPECT_FALSE(KRUtil::dataFolderIn(other.path(), &error));
  EXPECT_NE(error.message.find("is not a folder"), std::string::npos);
}

TEST(UtilDataFolder, FailureIsNotCachedSuccessIsCachedForGood) {
  TempDir tmp;
  // A data home below a plain file cannot be made.
  std::ofstream(tmp.path() + "/file") << "x";
  setenv("XDG_DATA_HOME", (tmp.path() + "/file/data").c_str(), 1);
  Error error;
  EXPECT_FALSE(KRUtil::applicationSupportFolder(&error));
  EXPECT_FALSE(error.message.empty());
  EXPECT_EQ(KRUtil::pathToExclusionPathsFile(), "");

  // A missing data home (a fresh account) is made, with non-UTF-8 bytes.
  const std::string home = tmp.path() + "/fresh\xff/share";
  setenv("XDG_DATA_HOME", home.c_str(), 1);
  auto folder = KRUtil::applicationSupportFolder();
  ASSERT_TRUE(folder);
  EXPECT_EQ(*folder, home + "/Zephlore");
  EXPECT_EQ(modeOf(home), 0700u);
  EXPECT_EQ(KRUtil::pathToExclusionPathsFile(), home + "/Zephlore/excludedPaths.plist");
  EXPECT_EQ(KRUtil::pathToExclusionExtensionsFile(), home + "/Zephlore/excludedExtensions.plist");

  // Cached: neither a new environment nor a removed folder changes it.
  fs::remove_all(home);
  setenv("XDG_DATA_HOME", tmp.path().c_str(), 1);
  EXPECT_EQ(KRUtil::applicationSupportFolder(), home + "/Zephlore");
}

TEST(UtilDataFolder, RelativeXdgDataHomeIsIgnoredForHome) {
  TempDir tmp;
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  setenv("XDG_DATA_HOME", "relative/share", 1);
  setenv("HOME", tmp.path().c_str(), 1);
  EXPECT_EQ(KRUtil::applicationSupportFolder(), tmp.path() + "/.local/share/Zephlore");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("ignoring XDG_DATA_HOME"), std::string::npos);
}

TEST(UtilPrivateDirectory, MadePrivateAndRefusedWhenUnsafe) {
  TempDir tmp;
  setenv("XDG_RUNTIME_DIR", tmp.path().c_str(), 1);
  auto dir = KRUtil::privateTemporaryDirectory();
  ASSERT_TRUE(dir);
  EXPECT_EQ(*dir, tmp.path() + "/zephlore");
  EXPECT_EQ(modeOf(*dir), 0700u);

  Error error;
  const std::string link = tmp.path() + "/link";
  ASSERT_EQ(symlink(dir->c_str(), link.c_str()), 0);
  EXPECT_FALSE(KRUtil::makePrivateDirectory(link, &error));
  EXPECT_NE(error.message.find("symbolic link"), std::string::npos);

  const std::string file = tmp.path() + "/file";
  std::ofstream(file) << "x";
  EXPECT_FALSE(KRUtil::makePrivateDirectory(file, &error));
  EXPECT_NE(error.message.find("not a folder"), std::string::npos);

  const std::string open = tmp.path() + "/open";
  ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(chmod(open.c_str(), 0755), 0);
  EXPECT_FALSE(KRUtil::makePrivateDirectory(open, &error));
  EXPECT_NE(error.message.find("open to other users"), std::string::npos);

  if (geteuid() == 0) {  // only root can hand a folder to someone else
    const std::string foreign = tmp.path() + "/foreign";
    ASSERT_EQ(mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(KRUtil::makePrivateDirectory(foreign, &error));
    EXPECT_NE(error.message.find("another user"), std::string::npos);
  }

  // An unsafe runtime folder is refused with a logged line and the next
  // candidate is tried.
  fs::remove(*dir);
  ASSERT_EQ(symlink(open.c_str(), dir->c_str()), 0);
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  auto fallback = KRUtil::privateTemporaryDirectory();
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines[0].find("refusing the temporary folder"), std::string::npos);
  if (fallback) {
    EXPECT_EQ(*fallback, "/tmp/zephlore-" + std::to_string(geteuid()));
  }
}

}  // namespace
}  // namespace zephlore
