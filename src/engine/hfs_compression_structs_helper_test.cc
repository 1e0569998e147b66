#include "engine/hfs_compression_structs_helper.h"

#include <gtest/gtest.h>

namespace zephlore {
namespace {

using H = QVHFSCompressionStructsHelper;

// The structures' bytes are checked through the forks they make (the golden
// fork tests); here only the edges those cannot reach.
TEST(HFSCompressionStructsHelper, BlockCountsAtTheEdges) {
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(0), 0u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(65537), 2u);
  // Truncation toward zero: small negative sizes give 0; no overflow at the top.
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(-1), 0u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(INT64_MAX), (uint64_t(INT64_MAX) >> 16) + 1);
  EXPECT_EQ(H::createPerBlockHeadersForBlocks(0), nullptr);
}

}  // namespace
}  // namespace zephlore
