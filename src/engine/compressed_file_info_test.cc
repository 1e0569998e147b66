#include "engine/compressed_file_info.h"

#include <fcntl.h>
#include <sys/xattr.h>

#include <gtest/gtest.h>

#include "engine/file_content_reader.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;

TEST(CompressedFileInfoTest, TellsEachStateAndReadsAnyRangeOfTheContent) {
  ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(3 * 65536 + 7);
  const std::string path = dir / "file";
  writeFile(path, data);
  Error error;
  CompressedFileInfo info;
  auto stateOf = [&] {
    EXPECT_TRUE(CompressedFileInfo::inspect(Env::system(), path, &info, &error)) << error.describe();
    return info.state;
  };
  auto readsBack = [&] {
    std::unique_ptr<FileContentReader> reader = FileContentReader::open(Env::system(), path, &error);
    ASSERT_NE(reader, nullptr) << error.describe();
    ASSERT_EQ(reader->size(), data.size());
    const uint64_t offsets[] = {0, 65530, 65536, data.size() - 5, data.size(), 1ull << 40};
    for (uint64_t offset : offsets) {
      std::string buf(65536, '\0');
      size_t got = 99;
      ASSERT_TRUE(reader->read(offset, buf.data(), buf.size(), &got, &error)) << error.describe();
      EXPECT_TRUE(buf.substr(0, got) == (offset < data.size() ? data.substr(offset, buf.size()) : "")) << offset;
    }
  };
  EXPECT_EQ(stateOf(), CompressionState::kPlain);
  EXPECT_EQ(info.uncompressedSize, data.size());
  readsBack();

  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), path, &error)) << error.describe();
  EXPECT_EQ(stateOf(), CompressionState::kCompressed);
  EXPECT_EQ(info.uncompressedSize, data.size());
  EXPECT_EQ(info.blockCount, 4u);
  EXPECT_TRUE(info.ratio() > 0 && info.ratio() < 0.5);
  EXPECT_TRUE(info.hasCompressedFlag && info.hasDecmpfs && info.hasResourceFork && !info.hasSignature);
  readsBack();

  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  EXPECT_EQ(stateOf(), CompressionState::kIncomplete);
  EXPECT_EQ(FileContentReader::open(Env::system(), path, &error), nullptr);
  EXPECT_EQ(error.code, kHFSErrorNotCompressed);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.decmpfs", "abcd\x04\0\0\0\0\0\0\0\0\0\0\0", 16, 0), 0);
  EXPECT_EQ(stateOf(), CompressionState::kNotOurs);
  EXPECT_FALSE(info.problem.empty());
  writeFile(path, "new data");
  EXPECT_EQ(stateOf(), CompressionState::kMixed);
  EXPECT_EQ(FileContentReader::open(Env::system(), path, &error), nullptr);
  EXPECT_EQ(error.code, kHFSErrorWrittenAfterCompression);
  EXPECT_FALSE(CompressedFileInfo::inspect(Env::system(), dir.path(), &info, &error));
  EXPECT_EQ(error.code, kHFSErrorNotRegularFile);
}

}  // namespace
}  // namespace zephlore
