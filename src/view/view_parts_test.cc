// The view's pure parts: which attribute names are hidden, and how the
// shared block cache stays within its bound.
#include <gtest/gtest.h>

#include <string>

#include "view/inflated_block_cache.h"
#include "view/layout_attributes.h"

namespace zephlore::view {
namespace {

TEST(LayoutAttributes, OnlyTheLayoutIsHidden) {
  for (const char* name : {"user.com.apple.decmpfs", "user.com.apple.ResourceFork", "user.com.apple.ResourceFork.1",
                           "user.com.apple.ResourceFork.17", "user.com.quorvane.zephlore.flags"}) {
    EXPECT_TRUE(isLayoutAttribute(name)) << name;
  }
  for (const char* name : {"user.com.apple.ResourceFork.01", "user.com.apple.ResourceFork.", "com.apple.decmpfs",
                           "trusted.com.apple.decmpfs", "user.com.quorvane.zephlore.signature",
                           "user.com.quorvane.zephlore.exclude", "user.tag", "system.posix_acl_access"}) {
    EXPECT_FALSE(isLayoutAttribute(name)) << name;
  }
  static const char kNames[] = "user.tag\0user.com.apple.decmpfs\0user.com.apple.ResourceFork.2\0security.selinux";
  std::string list(kNames, sizeof kNames);
  list.resize(removeLayoutAttributes(list.data(), list.size()));
  EXPECT_EQ(list, std::string("user.tag\0security.selinux\0", 26));
}

InflatedBlockCache::Block blockOf(size_t size) { return std::make_shared<InflatedBlock>(size); }

TEST(InflatedBlockCache, DropsLeastRecentlyUsedPastItsBound) {
  InflatedBlockCache cache(3 * 1000);
  BlockKey a{1, 10, 5, 0}, b{1, 10, 5, 1}, c{1, 11, 5, 0}, d{1, 12, 5, 0};
  cache.insert(a, blockOf(1000));
  cache.insert(b, blockOf(1000));
  cache.insert(c, blockOf(1000));
  ASSERT_NE(cache.find(a), nullptr);  // a is now the most recent
  cache.insert(d, blockOf(1000));
  EXPECT_EQ(cache.find(b), nullptr);
  EXPECT_NE(cache.find(a), nullptr);
  EXPECT_NE(cache.find(c), nullptr);
  EXPECT_EQ(cache.bytes(), 3000u);
  // A later file on the same inode (another change time) is another file.
  EXPECT_EQ(cache.find(BlockKey{1, 10, 6, 0}), nullptr);
  // Replacing keeps the count right; a block larger than the bound is not kept.
  cache.insert(a, blockOf(500));
  EXPECT_EQ(cache.bytes(), 2500u);
  cache.insert(BlockKey{2, 1, 1, 0}, blockOf(5000));
  EXPECT_EQ(cache.bytes(), 2500u);
  EXPECT_TRUE(cache.firstReportOfBadBlock(a));
  EXPECT_FALSE(cache.firstReportOfBadBlock(a));
}

}  // namespace
}  // namespace zephlore::view
