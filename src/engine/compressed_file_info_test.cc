#include "engine/compressed_file_info.h"

#include <sys/xattr.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/file_content_reader.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/scratch_dir_for_tests.h"

namespace zephlore {
namespace {

using testing::ScratchDir;
using testing::compressibleData;
using testing::writeFile;

CompressedFileInfo inspect(const std::string& path) {
  CompressedFileInfo info;
  Error error;
  EXPECT_TRUE(CompressedFileInfo::inspect(path, &info, &error)) << error.describe();
  return info;
}

TEST(CompressedFileInfoTest, TellsEachStateWithItsSizesAndMarkers) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "file";
  writeFile(path, compressibleData(3 * 65536 + 7));

  CompressedFileInfo info = inspect(path);
  EXPECT_EQ(info.state, CompressionState::kPlain);
  EXPECT_EQ(info.uncompressedSize, 3u * 65536 + 7);
  EXPECT_EQ(info.dataForkSize, info.uncompressedSize);
  EXPECT_GT(info.allocatedBytes, 0u);
  EXPECT_EQ(info.ratio(), 0);

  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error)) << error.describe();
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.quorvane.zephlore.signature", "s", 1, 0), 0);
  info = inspect(path);
  EXPECT_EQ(info.state, CompressionState::kCompressed);
  EXPECT_STREQ(compressionStateName(info.state), "compressed");
  EXPECT_EQ(info.uncompressedSize, 3u * 65536 + 7);
  EXPECT_EQ(info.dataForkSize, 0u);
  EXPECT_EQ(info.blockCount, 4u);
  EXPECT_GT(info.forkSize, 0x100u);
  EXPECT_GT(info.ratio(), 0);
  EXPECT_LT(info.ratio(), 0.5);
  EXPECT_TRUE(info.hasCompressedFlag && info.hasDecmpfs && info.hasResourceFork && info.hasSignature);
  EXPECT_FALSE(info.hasExcludeMarker);

  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  EXPECT_EQ(inspect(path).state, CompressionState::kIncomplete);

  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.decmpfs", "abcd\x04\0\0\0\0\0\0\0\0\0\0\0", 16, 0), 0);
  info = inspect(path);
  EXPECT_EQ(info.state, CompressionState::kNotOurs);
  EXPECT_FALSE(info.problem.empty());

  writeFile(path, "new data written into the file");
  info = inspect(path);
  EXPECT_EQ(info.state, CompressionState::kMixed);
  EXPECT_EQ(info.uncompressedSize, 30u);  // what a plain reader sees

  EXPECT_FALSE(CompressedFileInfo::inspect(dir.path(), &info, &error));
  EXPECT_EQ(error.code, kHFSErrorNotRegularFile);
}

TEST(CompressedFileInfoTest, ContentReaderServesAnyRangeOfCompressedAndPlainFiles) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(2 * 65536 + 100);
  const std::string plain = dir / "plain";
  const std::string packed = dir / "packed";
  writeFile(plain, data);
  writeFile(packed, data);
  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(packed, &error)) << error.describe();

  for (const std::string& path : {plain, packed}) {
    SCOPED_TRACE(path);
    std::unique_ptr<FileContentReader> reader = FileContentReader::open(path, &error);
    ASSERT_NE(reader, nullptr) << error.describe();
    EXPECT_EQ(reader->isCompressed(), path == packed);
    EXPECT_EQ(reader->size(), data.size());
    const struct {
      uint64_t offset;
      size_t n;
    } ranges[] = {{0, 10}, {65530, 20}, {65536, 65536}, {data.size() - 5, 100}, {data.size(), 10}, {1u << 30, 1}};
    for (const auto& range : ranges) {
      std::string buf(range.n, '\0');
      size_t got = 99;
      ASSERT_TRUE(reader->read(range.offset, buf.data(), buf.size(), &got, &error)) << error.describe();
      std::string expected = range.offset < data.size() ? data.substr(range.offset, range.n) : "";
      EXPECT_EQ(got, expected.size());
      EXPECT_TRUE(buf.substr(0, got) == expected) << range.offset;
    }
  }

  writeFile(packed, "");  // truncating leaves the attributes: still compressed
  ASSERT_EQ(lremovexattr(packed.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  EXPECT_EQ(FileContentReader::open(packed, &error), nullptr);
  EXPECT_EQ(error.code, kHFSErrorNotCompressed);
  writeFile(packed, "x");
  EXPECT_EQ(FileContentReader::open(packed, &error), nullptr);
  EXPECT_EQ(error.code, kHFSErrorWrittenAfterCompression);
}

}  // namespace
}  // namespace zephlore
