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
  EXPECT_TRUE(QVVolume::areInSameVolumePath(Env::system(), dir / "a", dir.path()));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::system(), dir / "a", "/proc"));
  EXPECT_FALSE(QVVolume::areInSameVolumePath(Env::system(), dir / "missing", dir / "missing too"));
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::system(), dir / "a"), "tmpfs");
  EXPECT_EQ(QVVolume::fileSystemTypeForPath(Env::system(), dir / "missing"), "Unknown");
  EXPECT_TRUE(QVVolume::isHFSPlusFileSystemForPath(Env::system(), dir / "a"));

  ASSERT_EQ(symlink(dir.path().c_str(), (dir / "link").c_str()), 0);
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::system(), dir / "link/./a"), dir / "a");
  EXPECT_EQ(QVPathString::stringByCanonicalizingPath(Env::system(), "/no/such/../path"), "/no/such/../path");
  EXPECT_TRUE(QVPathString::isDirectory(Env::system(), dir / "link"));
  EXPECT_FALSE(QVPathString::isDirectory(Env::system(), dir / "a"));
}

}  // namespace
}  // namespace zephlore
