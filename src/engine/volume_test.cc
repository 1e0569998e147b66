#include "engine/volume.h"

#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/path_string.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::LoopMount;
using testkit::ScratchDir;
using testkit::writeFile;

TEST(QVVolume, TmpfsIsACompressingVolumeWithExchange) {
  ScratchDir dir;
  writeFile(dir / "a", "a");
  writeFile(dir / "b", "b");

  const int16_t ref = QVVolume::volumeReferenceNumberForPath(Env::shared(), dir / "a");
  EXPECT_NE(ref, -1);
  EXPECT_EQ(QVVolume::volumeReferenceNumberForPath(Env::shared(), dir / "b"), ref);
  EXPECT_EQ(QVVolume::volumeReferenceNumberForPath(Env::shared(), dir / "missing"), -1);
  EXPECT_TRUE(QVVolume::areInSameVolumePath(Env::shared(), dir / "a", dir.path()));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), dir / "a", "/proc"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), dir / "missing", dir / "missing too"));

  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), dir / "a"), "tmpfs");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), dir / "missing"), "Unknown");
  EXPECT_TRUE(QVVolume::isHFSPlusFileSystemForPath(Env::shared(), dir / "a"));
  EXPECT_TRUE(QVVolume::exchangedataSupportedInVolumeForPath(Env::shared(), dir / "a"));
  EXPECT_EQ(QVVolume::volumeCapabilitiesForVolumeAtPath(Env::shared(), dir.path()),
            QVVolume::kVolumeCapabilityExchange);

  QVVolumeInfo info;
  info.isRemovable = true;
  ASSERT_TRUE(QVVolume::volumeInfoForPath(Env::shared(), dir / "a", &info));
  EXPECT_TRUE(info.isHFSPlus && info.isWritable);
  EXPECT_FALSE(info.isRemovable || info.isEjectable || info.isExternal);

  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(QVVolume::volumeInfoForPath(Env::shared(), dir / "missing", &info));
  EXPECT_FALSE(QVVolume::exchangedataSupportedInVolumeForPath(Env::shared(), dir / "missing"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("errno: 2"), std::string::npos) << lines[0];
}

TEST(QVVolume, DefaultExt4IsNotACompressingVolume) {
  LoopMount ext4(testkit::kDefaultExt4);
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  writeFile(ext4 / "f", "x");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), ext4 / "f"), "ext4");
  EXPECT_FALSE(QVVolume::isHFSPlusFileSystemForPath(Env::shared(), ext4 / "f"));
  EXPECT_TRUE(QVVolume::exchangedataSupportedInVolumeForPath(Env::shared(), ext4 / "f"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), ext4 / "f", "/dev/shm"));
  QVVolumeInfo info;
  ASSERT_TRUE(QVVolume::volumeInfoForPath(Env::shared(), ext4.path(), &info));
  EXPECT_FALSE(info.isHFSPlus);
  EXPECT_TRUE(info.isWritable);
  EXPECT_FALSE(info.isRemovable);  // a loop device
}

TEST(QVPathString, CanonicalFormsDirectoriesAndUsablePaths) {
  ScratchDir dir;
  writeFile(dir / "f", "x");
  ASSERT_EQ(symlink(dir.path().c_str(), (dir / "link").c_str()), 0);
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::shared(), dir / "link/./f"), dir / "f");
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::shared(), "/no/such/../path"), "/no/such/../path");
  EXPECT_TRUE(QVPathString::isDirectory(Env::shared(), dir / "link"));
  EXPECT_FALSE(QVPathString::isDirectory(Env::shared(), dir / "f"));

  Error error;
  EXPECT_TRUE(QVPathString::isUsablePath(dir / "caf\xc3\xa9 \xf0\x9f\x93\x81", &error));
  EXPECT_FALSE(QVPathString::isUsablePath(dir / "two\nlines", &error));
  EXPECT_NE(error.message.find("line feed"), std::string::npos);
  EXPECT_FALSE(QVPathString::isUsablePath(dir / "bad\xff", &error));
  EXPECT_NE(error.message.find("UTF-8"), std::string::npos);
  EXPECT_FALSE(QVPathString::isUsablePath(dir / "\xc0\xaf", &error));  // over-long "/"
  EXPECT_FALSE(QVPathString::isUsablePath(dir / std::string(256, 'n'), &error));
  EXPECT_FALSE(QVPathString::isUsablePath("/" + std::string(5000, 'p'), &error));
  EXPECT_EQ(error.code, ENAMETOOLONG);
  EXPECT_FALSE(QVPathString::isUsablePath(std::string("a\0b", 3), &error));
  EXPECT_FALSE(QVPathString::isUsablePath("", &error));
}

}  // namespace
}  // namespace zephlore
