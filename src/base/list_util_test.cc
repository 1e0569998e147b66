#include "base/list_util.h"

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace zephlore {
namespace {

TEST(ListUtil, PopsAnswerNoneOnEmptyListsAndBatchesTakeWhatIsThere) {
  std::vector<std::string> list{"a", "b", "c"};
  EXPECT_EQ(pop(list), "c");
  EXPECT_EQ(leftPop(list), "a");
  EXPECT_EQ(pop(list), "b");
  EXPECT_FALSE(peek(list));
  EXPECT_FALSE(pop(list));
  EXPECT_FALSE(leftPop(list));

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

TEST(ListUtil, SkippingMapKeepsPositionsUnlessAskedToSkip) {
  const std::vector<std::string> paths{"/a/x.txt", "/b", "/c/y.jpg"};
  auto extension = [](const std::string& p) -> std::optional<std::string> {
    size_t dot = p.rfind('.');
    if (dot == std::string::npos) return std::nullopt;
    return p.substr(dot + 1);
  };
  using Maybe = std::vector<std::optional<std::string>>;
  EXPECT_EQ(mapSkippingNilValues(paths, extension, false), (Maybe{"txt", std::nullopt, "jpg"}));
  EXPECT_EQ(mapSkippingNilValues(paths, extension, true), (Maybe{"txt", "jpg"}));
  EXPECT_EQ(mapSkippingNilValues(paths, extension), (std::vector<std::string>{"txt", "jpg"}));
}

}  // namespace
}  // namespace zephlore
