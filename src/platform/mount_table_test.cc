#include "platform/mount_table.h"

#include <gtest/gtest.h>

namespace zephlore {
namespace {

TEST(MountTable, LinesAreSplitAndTheirEscapesUndone) {
  auto entry = parseMountInfoLine(
      "36 35 98:0 / /media/my\\040disk rw,noatime shared:1 master:2 - ext4 /dev/sdb1 rw,errors=remount-ro");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->major, 98u);
  EXPECT_EQ(entry->minor, 0u);
  EXPECT_EQ(entry->mountPoint, "/media/my disk");
  EXPECT_EQ(entry->fsType, "ext4");
  EXPECT_EQ(entry->source, "/dev/sdb1");
  EXPECT_EQ(entry->superOptions, "rw,errors=remount-ro");
  EXPECT_FALSE(parseMountInfoLine("36 35 98:0 / /mnt rw"));
  EXPECT_FALSE(parseMountInfoLine(""));

  EXPECT_EQ(unescapeMountField("a\\011b\\012c\\134d"), "a\tb\nc\\d");
  // Not an escape the kernel writes: kept as it is, never a crash.
  EXPECT_EQ(unescapeMountField("x\\9ab\\"), "x\\9ab\\");
  EXPECT_EQ(unescapeMountField("end\\04"), "end\\04");
}

}  // namespace
}  // namespace zephlore
