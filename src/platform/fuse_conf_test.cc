#include <gtest/gtest.h>

#include "platform/fuse_availability.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

TEST(FuseConf, OnlyAnUncommentedUserAllowOtherLineLetsOthersIn) {
  testkit::ScratchDir dir;
  const std::string conf = dir / "fuse.conf";
  EXPECT_FALSE(fuseConfAllowsOthers(dir / "missing"));
  testkit::writeFile(conf, "# Allow non-root users to specify the allow_other mount option.\n#user_allow_other\n");
  EXPECT_FALSE(fuseConfAllowsOthers(conf));
  testkit::writeFile(conf, "mount_max = 1000\nuser_allow_other_too\n");
  EXPECT_FALSE(fuseConfAllowsOthers(conf));
  testkit::writeFile(conf, "mount_max = 1000\n  user_allow_other \t\n");
  EXPECT_TRUE(fuseConfAllowsOthers(conf));
}

}  // namespace
}  // namespace zephlore
