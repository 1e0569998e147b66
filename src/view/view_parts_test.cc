// The view's pure parts: which attribute names are hidden, how the shared
// block cache stays within its bound, and when the kernel may keep pages.
#include <gtest/gtest.h>

#include <string>

#include "view/inflated_block_cache.h"
#include "view/kept_pages.h"
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
  BlockKey a{{1, 10, 5}, 0}, b{{1, 10, 5}, 1}, c{{1, 11, 5}, 0}, d{{1, 12, 5}, 0};
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
  EXPECT_EQ(cache.find(BlockKey{{1, 10, 6}, 0}), nullptr);
  // Replacing keeps the count right; a block larger than the bound is not kept.
  cache.insert(a, blockOf(500));
  EXPECT_EQ(cache.bytes(), 2500u);
  cache.insert(BlockKey{{2, 1, 1}, 0}, blockOf(5000));
  EXPECT_EQ(cache.bytes(), 2500u);
  // A dropped block frees its room; a reader still holding it keeps it.
  InflatedBlockCache::Block held = cache.find(c);
  cache.erase(c);
  cache.erase(c);
  EXPECT_EQ(cache.find(c), nullptr);
  EXPECT_EQ(cache.bytes(), 1500u);
  EXPECT_EQ(held->size, 1000u);
  EXPECT_TRUE(cache.firstReportOfBadBlock(a));
  EXPECT_FALSE(cache.firstReportOfBadBlock(a));
}

// Opens `path` and closes it again; whether the kernel could keep its pages.
bool reopen(KeptPages& kept, const std::string& path, FileVersion version, bool fixed = true) {
  bool keep = true;
  kept.closed(kept.opened(path, version, fixed, false, &keep), false);
  return keep;
}

TEST(KeptPages, KeptOnlyForTheSameCompressedVersionSeenAloneAtThatPath) {
  KeptPages kept;
  const FileVersion v1{1, 10, 100}, v2{1, 10, 200}, other{1, 11, 100};
  EXPECT_FALSE(reopen(kept, "/a", v1));
  EXPECT_TRUE(reopen(kept, "/a", v1));
  EXPECT_FALSE(reopen(kept, "/a", v2));  // changed beneath
  EXPECT_TRUE(reopen(kept, "/a", v2));
  EXPECT_FALSE(reopen(kept, "/a", other));  // replaced beneath
  // Plain files never are, nor the compressed file that follows one.
  EXPECT_FALSE(reopen(kept, "/a", v1, false));
  EXPECT_FALSE(reopen(kept, "/a", v1, false));
  EXPECT_FALSE(reopen(kept, "/a", v1));
  EXPECT_TRUE(reopen(kept, "/a", v1));

  // A file of an older version still open may read its pages back in after
  // the kernel dropped them: nothing is kept until a reopen with none open.
  bool keep = true;
  KeptPages::Ticket old = kept.opened("/b", v1, true, false, &keep);
  EXPECT_FALSE(reopen(kept, "/b", v2));
  kept.closed(old, false);
  EXPECT_FALSE(reopen(kept, "/b", v2));
  EXPECT_TRUE(reopen(kept, "/b", v2));
  // Files open together on one version share the pages.
  old = kept.opened("/b", v2, true, false, &keep);
  EXPECT_TRUE(keep);
  EXPECT_TRUE(reopen(kept, "/b", v2));
  kept.closed(old, false);

  // While a plain file is open for writing through the view, every open of
  // it keeps the pages the writes went into; after, it is read afresh.
  KeptPages::Ticket writer = kept.opened("/c", v1, false, true, &keep);
  EXPECT_FALSE(keep);
  EXPECT_TRUE(reopen(kept, "/c", v2, false));
  KeptPages::Ticket second = kept.opened("/c", v2, false, true, &keep);
  EXPECT_TRUE(keep);
  kept.closed(second, true);
  kept.closed(writer, true);
  EXPECT_FALSE(reopen(kept, "/c", v2, false));
}

TEST(KeptPages, RenamesCarryThePagesAndRemovalsDropThem) {
  KeptPages kept;
  const FileVersion v{1, 10, 100}, w{1, 20, 100};
  reopen(kept, "/d/f", v);
  reopen(kept, "/d-x", w);
  reopen(kept, "/e/g", w);
  kept.renamed("/d", "/e");  // the folder replaces /e and all in it
  EXPECT_TRUE(reopen(kept, "/e/f", v));
  EXPECT_FALSE(reopen(kept, "/d/f", v));
  EXPECT_FALSE(reopen(kept, "/e/g", w));
  EXPECT_TRUE(reopen(kept, "/d-x", w));  // a name that only starts alike
  kept.removed("/e");
  EXPECT_FALSE(reopen(kept, "/e/f", v));
  kept.removed("/d-x");
  EXPECT_FALSE(reopen(kept, "/d-x", w));

  // An open file knows where it is shown until its name goes or is taken.
  bool keep = false;
  KeptPages::Ticket open = kept.opened("/h/i", v, true, false, &keep), taken = kept.opened("/j", w, true, false, &keep);
  kept.renamed("/h", "/k");
  EXPECT_EQ(kept.pathOf(open), "/k/i");
  kept.renamed("/k/i", "/j");
  EXPECT_EQ(kept.pathOf(open), "/j");
  EXPECT_EQ(kept.pathOf(taken), std::nullopt);
  kept.removed("/j");
  EXPECT_EQ(kept.pathOf(open), std::nullopt);
  kept.closed(open, false);
  kept.closed(taken, false);
}

}  // namespace
}  // namespace zephlore::view
