#include "base/util.h"

#include <gtest/gtest.h>
#include <grp.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/data_folder.h"
#include "base/log.h"
#include "base/xdg.h"
#include "testing/files.h"
#include "testing/scoped_env.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

namespace fs = std::filesystem;
using testkit::modeOf;
using testkit::ScopedEnvVar;
using testkit::ScratchDir;

TEST(UtilDataFolder, OlderFolderNamesWinInOrderThenZephloreIsCreated) {
  ScratchDir tmp;
  const std::string base = tmp.path();
  Error error;

  // A plain file called "Krimble" is not a folder and is passed over.
  std::ofstream(base + "/Krimble") << "x";
  auto folder = chooseDataFolderIn(base, &error);
  ASSERT_TRUE(folder) << error.message;
  EXPECT_EQ(*folder, base + "/Zephlore");
  EXPECT_EQ(modeOf(*folder), 0700u);

  fs::create_directory(base + "/Krimbler");
  EXPECT_EQ(chooseDataFolderIn(base, &error), base + "/Krimbler");
  fs::remove(base + "/Krimble");
  fs::create_directory(base + "/Krimble");
  EXPECT_EQ(chooseDataFolderIn(base, &error), base + "/Krimble");

  // No intermediate folders are made for the data folder itself.
  EXPECT_FALSE(chooseDataFolderIn(base + "/missing/deeper", &error));
  EXPECT_NE(error.message.find("cannot create the data folder"), std::string::npos);
  EXPECT_FALSE(fs::exists(base + "/missing"));

  // "Zephlore" taken by a file: a clear failure, not a crash.
  ScratchDir other;
  std::ofstream(other.path() + "/Zephlore") << "x";
  EXPECT_FALSE(chooseDataFolderIn(other.path(), &error));
  EXPECT_NE(error.message.find("is not a folder"), std::string::npos);
}

TEST(UtilDataFolder, FoundAfreshEachTimeAndNeverMadeByTheLookUpOfAnExistingOne) {
  ScratchDir tmp;
  // A data home below a plain file cannot be made.
  std::ofstream(tmp.path() + "/file") << "x";
  ScopedEnvVar data("XDG_DATA_HOME", tmp.path() + "/file/data");
  Error error;
  EXPECT_FALSE(findDataFolder(&error));
  EXPECT_FALSE(error.message.empty());
  EXPECT_EQ(exclusionPathsFileIn(""), "");

  // A missing data home (a fresh account) is made, with non-UTF-8 bytes.
  const std::string home = tmp.path() + "/fresh\xff/share";
  setenv("XDG_DATA_HOME", home.c_str(), 1);
  EXPECT_FALSE(existingDataFolder()) << "only looked for";
  auto folder = findDataFolder();
  ASSERT_TRUE(folder);
  EXPECT_EQ(*folder, home + "/Zephlore");
  EXPECT_EQ(modeOf(home), 0700u);
  EXPECT_EQ(existingDataFolder(), folder);
  EXPECT_EQ(exclusionPathsFileIn(*folder), home + "/Zephlore/excludedPaths.plist");
  EXPECT_EQ(exclusionExtensionsFileIn(*folder), home + "/Zephlore/excludedExtensions.plist");

  // Nothing kept: a removed folder is gone for the look-up, and an earlier
  // installation's folder is taken as soon as it is there.
  fs::remove_all(home);
  EXPECT_FALSE(existingDataFolder());
  EXPECT_FALSE(fs::exists(home));
  fs::create_directories(home + "/Krimbler");
  EXPECT_EQ(existingDataFolder(), home + "/Krimbler");
  EXPECT_EQ(findDataFolder(), home + "/Krimbler");
}

TEST(UtilDataFolder, RelativeXdgDataHomeIsIgnoredForHome) {
  ScratchDir tmp;
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  ScopedEnvVar data("XDG_DATA_HOME", "relative/share");
  ScopedEnvVar home("HOME", tmp.path());
  EXPECT_EQ(findDataFolder(), tmp.path() + "/.local/share/Zephlore");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("ignoring XDG_DATA_HOME"), std::string::npos);

  // No home at all: the private runtime folder, never a shared one.
  ScopedEnvVar no_data("XDG_DATA_HOME", std::nullopt);
  ScopedEnvVar no_home("HOME", std::nullopt);
  ScopedEnvVar runtime("XDG_RUNTIME_DIR", tmp.path());
  if (homeFolder().empty()) {  // the user database may still know one
    EXPECT_EQ(findDataFolder(), tmp.path() + "/zephlore/Zephlore");
  }
}

TEST(UtilPrivateDirectory, MadePrivateAndRefusedWhenUnsafe) {
  ScratchDir tmp;
  ScopedEnvVar runtime("XDG_RUNTIME_DIR", tmp.path());
  auto dir = privateRuntimeFolder();
  ASSERT_TRUE(dir);
  EXPECT_EQ(*dir, tmp.path() + "/zephlore");
  EXPECT_EQ(modeOf(*dir), 0700u);

  Error error;
  const std::string link = tmp.path() + "/link";
  ASSERT_EQ(symlink(dir->c_str(), link.c_str()), 0);
  EXPECT_FALSE(makePrivateDirectory(link, &error));
  EXPECT_NE(error.message.find("symbolic link"), std::string::npos);

  const std::string file = tmp.path() + "/file";
  std::ofstream(file) << "x";
  EXPECT_FALSE(makePrivateDirectory(file, &error));
  EXPECT_NE(error.message.find("not a folder"), std::string::npos);

  const std::string open = tmp.path() + "/open";
  ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(chmod(open.c_str(), 0755), 0);
  EXPECT_FALSE(makePrivateDirectory(open, &error));
  EXPECT_NE(error.message.find("open to other users"), std::string::npos);

  if (geteuid() == 0) {  // only root can hand a folder to someone else
    const std::string foreign = tmp.path() + "/foreign";
    ASSERT_EQ(mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(makePrivateDirectory(foreign, &error));
    EXPECT_NE(error.message.find("another user"), std::string::npos);
  }

  // An unsafe runtime folder is refused; there is no shared fallback.
  fs::remove(*dir);
  ASSERT_EQ(symlink(open.c_str(), dir->c_str()), 0);
  EXPECT_FALSE(privateRuntimeFolder(&error));
  ScopedEnvVar shared_runtime("XDG_RUNTIME_DIR", "/tmp");
  EXPECT_FALSE(privateRuntimeFolder(&error));
  EXPECT_NE(error.message.find("not a private folder"), std::string::npos);
}
TEST(UtilPrettySize, BytesThenDecimalUnitsInSinglePrecision) {
  const std::pair<uint64_t, const char*> cases[] = {
      {0, "0 b"},
      {1023, "1023 b"},  // 1000..1023 keep the byte form
      {1024, "1.02 KB"},
      {99999, "100.0 KB"},  // 99.999 under "%.1f"
      {999999, "1000 KB"},  // 999.999 under "%.0f"
      {1500000, "1.50 MB"},
      {123456789012ULL, "123 GB"},
      {UINT64_MAX, "18446743552 GB"},  // float precision, as shown
  };
  for (const auto& [bytes, shown] : cases) EXPECT_EQ(KRUtil::getPrettySize(bytes), shown) << bytes;
}

TEST(UtilFileAge, WholeSecondsOnTheGivenClock) {
  ManualClock clock;
  const int64_t now = static_cast<int64_t>(time(nullptr));
  clock.setWall(WallTime(std::chrono::seconds(now)) + std::chrono::milliseconds(900));
  EXPECT_EQ(KRUtil::timeIntervalSinceTime(clock, now - 30), 30.0);
  EXPECT_EQ(KRUtil::timeIntervalSinceTime(clock, now + 5), -5.0);
  clock.advance(std::chrono::seconds(45));
  EXPECT_EQ(KRUtil::timeIntervalSinceTime(clock, now), 45.0);
}

TEST(UtilGroups, SupplementaryGroupsOnly) {
  int count = getgroups(0, nullptr);
  std::vector<gid_t> groups(static_cast<size_t>(std::max(count, 0)));
  if (count > 0) getgroups(count, groups.data());
  for (gid_t g : groups) EXPECT_TRUE(KRUtil::processGroupsInclude(g)) << g;
  // A group id nobody has.
  gid_t unused = 54321;
  while (std::find(groups.begin(), groups.end(), unused) != groups.end()) ++unused;
  EXPECT_FALSE(KRUtil::processGroupsInclude(unused));
}

// Runs with the local time zone set to `tz` (a POSIX rule, no zone files).
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    unsetenv("TZ");
    tzset();
  }
};

TEST(UtilDates, RenderedInLocalTimeWithStyles) {
  ScopedTimeZone zone("ABC-11");  // 11 hours ahead of UTC
  const WallTime date = WallTime(std::chrono::seconds(1705326330));  // Mon 2024-01-15 13:45:30 UTC
  // The C locale writes dates month first; here it is already Tuesday.
  EXPECT_EQ(KRUtil::stringWithDate(date), "January 16, 2024");
  EXPECT_EQ(KRUtil::stringWithDate(date, DateStyle::kShort, DateStyle::kNone), "01/16/24");
  EXPECT_EQ(KRUtil::stringWithDate(date, DateStyle::kFull, DateStyle::kLong),
            "Tuesday, January 16, 2024 00:45:30 ABC");
  EXPECT_EQ(KRUtil::stringWithDate(date, DateStyle::kNone, DateStyle::kMedium), "00:45:30");
  EXPECT_EQ(KRUtil::stringWithDate(date, DateStyle::kNone, DateStyle::kNone), "");
}

}  // namespace
}  // namespace zephlore
