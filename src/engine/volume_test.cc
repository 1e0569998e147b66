#include "engine/volume.h"

#include <gtest/gtest.h>

#include "engine/path_string.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

// Which volumes hold the form is measured in platform/volume_capabilities.
TEST(QVVolume, SameVolumeTypeAndCanonicalPaths) {
  ScratchDir dir;
  writeFile(dir / "a", "a");
  EXPECT_TRUE(QVVolume::areInSameVolumePath(Env::shared(), dir / "a", dir.path()));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), dir / "a", "/proc"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::shared(), dir / "missing", dir / "missing too"));
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), dir / "a"), "tmpfs");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::shared(), dir / "missing"), "Unknown");
  EXPECT_TRUE(QVVolume::isHFSPlusFileSystemForPath(Env::shared(), dir / "a"));

  ASSERT_EQ(symlink(dir.path().c_str(), (dir / "link").c_str()), 0);
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::shared(), dir / "link/./a"), dir / "a");
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::shared(), "/no/such/../path"), "/no/such/../path");
  EXPECT_TRUE(QVPathString::isDirectory(Env::shared(), dir / "link"));
  EXPECT_FALSE(QVPathString::isDirectory(Env::shared(), dir / "a"));
}

}  // namespace
}  // namespace zephlore
