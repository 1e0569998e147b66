#include "base/list_util.h"

#include <gtest/gtest.h>

#include <deque>
#include <vector>

namespace zephlore {
namespace {

TEST(ListUtil, BatchesTakeWhatIsThereInOrder) {
  std::deque<int> queue;  // the compressor's pending files
  for (int i = 0; i < 120; ++i) queue.push_back(i);
  std::vector<int> batch = leftPopNumObjects(queue, 50);
  ASSERT_EQ(batch.size(), 50u);
  EXPECT_EQ(batch.back(), 49);
  EXPECT_EQ(queue.front(), 50);
  EXPECT_EQ(leftPopNumObjects(queue, (1ULL << 32) + 3).size(), 3u);  // low 32 bits only
  EXPECT_EQ(leftPopNumObjects(queue, 1000).size(), 67u);  // more than there is: all
  EXPECT_TRUE(queue.empty());
}

}  // namespace
}  // namespace zephlore
