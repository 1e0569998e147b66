#include "engine/volume.h"

#include <gtest/gtest.h>

#include "engine/path_string.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::LoopMount;
using testkit::ScratchDir;
using testkit::writeFile;

// tmpfs holds the compressed form; ext4 as distributions make it does not.
TEST(QVVolume, TmpfsHoldsTheCompressedFormDefaultExt4DoesNot) {
  ScratchDir dir;
  writeFile(dir / "a", "a");
  EXPECT_TRUE(QVVolume::areInSameVolumePath(Env::shared(), dir / "a", dir.path()));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), dir / "a", "/proc"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), dir / "missing", dir / "missing too"));
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), dir / "a"), "tmpfs");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), dir / "missing"), "Unknown");
  EXPECT_TRUE(QVVolume::isHFSPlusFileSystemForPath(Env::shared(), dir / "a"));

  LoopMount ext4(testkit::kDefaultExt4);
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  writeFile(ext4 / "f", "x");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), ext4 / "f"), "ext4");
  EXPECT_FALSE(QVVolume::isHFSPlusFileSystemForPath(Env::shared(), ext4 / "f"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), ext4 / "f", dir / "a"));
}

TEST(QVPathString, CanonicalFormsAndDirectories) {
  ScratchDir dir;
  writeFile(dir / "f", "x");
  ASSERT_EQ(symlink(dir.path().c_str(), (dir / "link").c_str()), 0);
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::shared(), dir / "link/./f"), dir / "f");
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::shared(), "/no/such/../path"), "/no/such/../path");
  EXPECT_TRUE(QVPathString::isDirectory(Env::shared(), dir / "link"));
  EXPECT_FALSE(QVPathString::isDirectory(Env::shared(), dir / "f"));
}

}  // namespace
}  // namespace zephlore
