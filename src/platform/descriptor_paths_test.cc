#include "platform/descriptor_paths.h"

#include <gtest/gtest.h>

namespace zephlore {
namespace {

TEST(DescriptorPaths, AreTakenApartAndShownAsTheUserKnowsThem) {
  const std::string path = descriptorPathOf(4242, 7);
  auto parts = splitDescriptorPath(path + "/docs/a b");
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->pid, 4242);
  EXPECT_EQ(parts->fd, 7);
  EXPECT_EQ(parts->rest, "/docs/a b");
  EXPECT_EQ(splitDescriptorPath(path)->rest, "");
  for (const std::string& other : std::vector<std::string>{"/home/u/file", descriptorPath(3), path + "x", "/proc/12/fdinfo/3"}) {
    EXPECT_FALSE(splitDescriptorPath(other)) << other;
  }

  const std::string three = descriptorPathOf(10, 3);
  const std::string message = "cannot read " + three + "/a; " + descriptorPathOf(10, 31) + "/b is fine; " + three;
  EXPECT_EQ(withDescriptorPathsShown(message, {{three, "/home/u/view"}}),
            "cannot read /home/u/view/a; " + descriptorPathOf(10, 31) + "/b is fine; /home/u/view");
}

}  // namespace
}  // namespace zephlore
