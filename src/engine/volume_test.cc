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

  const int16_t ref = QVVolume::volumeReferenceNumberForPath(dir / "a");
  EXPECT_NE(ref, -1);
  EXPECT_EQ(QVVolume::volumeReferenceNumberForPath(dir / "b"), ref);
  EXPECT_EQ(QVVolume::volumeReferenceNumberForPath(dir / "missing"), -1);
  EXPECT_TRUE(QVVolume::areInSameVolumePath(dir / "a", dir.path()));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(dir / "a", "/proc"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(dir / "missing", dir / "missing too"));

  EXPECT_EQ(QVVolume::fileSystemTypeForPath(dir / "a"), "tmpfs");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(dir / "missing"), "Unknown");
  EXPECT_TRUE(QVVolume::isHFSPlusFileSystemForPath(dir / "a"));
  EXPECT_TRUE(QVVolume::fsIsHFSVolumeForPath(dir.path()));
  EXPECT_TRUE(QVVolume::exchangedataSupportedInVolumeForPath(dir / "a"));
  EXPECT_TRUE(QVVolume::exchangedataSupportedInVolumeForCPath((dir / "a").c_str()));
  EXPECT_EQ(QVVolume::volumeCapabilitiesForVolumeAtPath(dir.path()),
            QVVolume::kVolumeCapabilityExchange);

  QVVolumeInfo info;
  info.isRemovable = true;
  ASSERT_TRUE(QVVolume::volumeInfoForPath(dir / "a", &info));
  EXPECT_TRUE(info.isHFSPlus);
  EXPECT_TRUE(info.isWritable);
  EXPECT_FALSE(info.isRemovable || info.isEjectable || info.isExternal);
  EXPECT_FALSE(QVVolume::fsIsVolumeEjectableForPath(dir / "a"));

  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(QVVolume::volumeInfoForPath(dir / "missing", &info));
  EXPECT_FALSE(QVVolume::exchangedataSupportedInVolumeForPath(dir / "missing"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("errno: 2"), std::string::npos) << lines[0];
}

TEST(QVVolume, DefaultExt4IsNotACompressingVolume) {
  LoopMount ext4(testkit::kDefaultExt4);
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  writeFile(ext4 / "f", "x");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(ext4 / "f"), "ext4");
  EXPECT_FALSE(QVVolume::isHFSPlusFileSystemForPath(ext4 / "f"));
  EXPECT_TRUE(QVVolume::exchangedataSupportedInVolumeForPath(ext4 / "f"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(ext4 / "f", "/dev/shm"));
  QVVolumeInfo info;
  ASSERT_TRUE(QVVolume::volumeInfoForPath(ext4.path(), &info));
  EXPECT_FALSE(info.isHFSPlus);
  EXPECT_TRUE(info.isWritable);
  EXPECT_FALSE(info.isRemovable);  // a loop device
}

TEST(QVPathString, CanonicalFormsDirectoriesAndUsablePaths) {
  ScratchDir dir;
  writeFile(dir / "f", "x");
  ASSERT_EQ(symlink(dir.path().c_str(), (dir / "link").c_str()), 0);
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(dir / "link/./f"), dir / "f");
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath("/no/such/../path"), "/no/such/../path");
  EXPECT_TRUE(QVPathString::isDirectory(dir / "link"));
  EXPECT_FALSE(QVPathString::isDirectory(dir / "f"));
  EXPECT_FALSE(QVPathString::isDirectory(dir / "missing"));
  EXPECT_EQ(QVPathString::stringWithFileSystemRepresentation("abc\0def", 7), "abc");

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
