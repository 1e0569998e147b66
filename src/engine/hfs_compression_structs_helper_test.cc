#include "engine/hfs_compression_structs_helper.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace zephlore {
namespace {

using H = QVHFSCompressionStructsHelper;

template <typename T>
std::vector<uint8_t> bytesOf(const T& value) {
  std::vector<uint8_t> out(sizeof(T));
  std::memcpy(out.data(), &value, sizeof(T));
  return out;
}

TEST(HFSCompressionStructsHelper, BlockCounts) {
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(0), 0u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(1), 1u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(65536), 1u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(65537), 2u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(3 * 65536 + 7), 4u);
  // Truncation toward zero: small negative sizes give 0; no overflow at the top.
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(-1), 0u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(INT64_MAX), (uint64_t(INT64_MAX) >> 16) + 1);
}

// The values themselves are checked byte for byte by the fork-image tests;
// here only what those cannot see: the tables of the builder.
TEST(HFSCompressionStructsHelper, TablesStartAfterThemselves) {
  EXPECT_EQ(H::createPerBlockHeadersForBlocks(0), nullptr);
  EXPECT_EQ(H::createPerBlockHeadersForSize(0), nullptr);
  auto one = H::createPerBlockHeadersForSize(65536);
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(one[0].offset, 12u);
  auto three = H::createPerBlockHeadersForBlocks(3);
  EXPECT_EQ(three[0].offset, 28u);
  EXPECT_EQ(three[1].offset, 0u);
  EXPECT_EQ(three[2].size, 0u);
}

TEST(HFSCompressionStructsHelper, FlipsGiveTheOnDiskBytes) {
  HFSPlusCmpfRsrcHead head = H::createResourceHeader();
  H::flipRsrcHead(&head);
  EXPECT_EQ(bytesOf(head), (std::vector<uint8_t>{0, 0, 1, 0, 0, 0, 1, 8, 0, 0, 0, 8, 0, 0, 0, 0x32}));
  H::flipRsrcHead(&head);
  EXPECT_EQ(head.mapOffset, 0x108u);

  HFSPlusCmpfRsrcBlockHead blockHead{0x11223344, 3};
  H::flipRsrcBlockHead(&blockHead);
  EXPECT_EQ(bytesOf(blockHead), (std::vector<uint8_t>{0x11, 0x22, 0x33, 0x44, 3, 0, 0, 0}));

  HFSPlusCmpfRsrcBlock block{0x01020304, 0x05060708};
  const auto before = bytesOf(block);
  H::flipRsrcBlock(&block);
  EXPECT_EQ(bytesOf(block), before);
  HFSPlusDecmpfs decmpfs = H::createDecmpfsStructForSize(7);
  const auto decmpfsBefore = bytesOf(decmpfs);
  H::flipHFSPlusDecmpfs(&decmpfs);
  EXPECT_EQ(bytesOf(decmpfs), decmpfsBefore);

  HFSPlusCmpfEnd end = H::createFooter();
  H::flipHFSPlusCmpfEnd(&end);
  std::vector<uint8_t> expected(24, 0);
  const uint8_t tail[] = {0x00, 0x1C, 0x00, 0x32, 0x00, 0x00, 0x63, 0x6D, 0x70, 0x66, 0x00, 0x00, 0x00,
                          0x0A, 0x00, 0x01, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0};
  expected.insert(expected.end(), std::begin(tail), std::end(tail));
  EXPECT_EQ(bytesOf(end), expected);
}

}  // namespace
}  // namespace zephlore
