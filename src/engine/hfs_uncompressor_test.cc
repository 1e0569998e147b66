#include "engine/hfs_uncompressor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class QVHFSUncompressorTest : public ::testing::Test {
 protected:
  ScopedRuntimeDir runtime;
  ScratchDir dir;
};

// Each refusal leaves the file exactly as it was, compressed or not.
TEST_F(QVHFSUncompressorTest, RefusesWhatItCannotExpandAndLeavesItAlone) {
  const std::string path = dir / "file";
  auto expectRefused = [&](bool ignoreFlag, int code, const std::string& message) {
    const FileSnapshot before = FileSnapshot::take(path);
    Error error;
    EXPECT_FALSE(QVHFSUncompressor::expandInPlacePath(Env::system(), path, &error, nullptr, nullptr, ignoreFlag));
    EXPECT_EQ(error.code, code);
    EXPECT_THAT(error.message, HasSubstr(message));
    EXPECT_EQ(FileSnapshot::take(path), before);
    EXPECT_THAT(listFolder(dir.path()), ElementsAre("file"));
  };
  writeFile(path, compressibleData(200000));
  expectRefused(false, kHFSErrorNotCompressed, "Source file is not compressed at " + path);

  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), path, &error)) << error.describe();
  writeFile(path, "late");  // written into after compression
  expectRefused(false, kHFSErrorWrittenAfterCompression, "was written after it was compressed");
  ASSERT_EQ(truncate(path.c_str(), 0), 0);

  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  expectRefused(false, kHFSErrorNotCompressed, "Source file is not compressed at " + path);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.quorvane.zephlore.flags", "\x20\0\0\0", 4, 0), 0);

  // A block that does not inflate (four blocks: the streams begin at 0x128).
  std::string fork = attributesOf(path)["user.com.apple.ResourceFork"];
  fork[0x130] = static_cast<char>(fork[0x130] ^ 0x55);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.ResourceFork", fork.data(), fork.size(), 0), 0);
  expectRefused(false, kHFSErrorCannotUncompress, "Source data cannot be uncompressed");

  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.decmpfs", "fpmc\x03\0\0\0\0\0\0\0\0\0\0\0", 16, 0), 0);
  expectRefused(true, kHFSErrorNotCompressed, "Source file is not compressed at " + path);
}

TEST_F(QVHFSUncompressorTest, ExpandsToAnotherPathWithTheAttributesButNotTheMarkers) {
  const std::string data = compressibleData(150000);
  const std::string source = dir / "source";
  writeFile(source, data);
  ASSERT_EQ(lsetxattr(source.c_str(), "user.kept", "yes", 3, 0), 0);
  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), source, &error)) << error.describe();
  ASSERT_EQ(lsetxattr(source.c_str(), "user.com.quorvane.zephlore.exclude", "0123456789abcdef", 16, 0), 0);
  ASSERT_EQ(lsetxattr(source.c_str(), "user.com.quorvane.zephlore.signature", "sig", 3, 0), 0);
  const FileSnapshot compressed = FileSnapshot::take(source);

  QVHFSUncompressor expander(Env::system(), source, {2});
  int64_t forkBytes = 0, contentBytes = 0;
  ASSERT_TRUE(expander.expandTo(dir / "copy", &error, &forkBytes, &contentBytes)) << error.describe();
  EXPECT_TRUE(readFile(dir / "copy") == data);
  EXPECT_EQ(contentBytes, 150000);
  EXPECT_EQ(static_cast<size_t>(forkBytes), compressed.attributes.at("user.com.apple.ResourceFork").size());
  EXPECT_EQ(FileSnapshot::take(dir / "copy").st.st_mode & 07777, 0644u);  // the source's
  EXPECT_EQ(attributesOf(dir / "copy"), (std::map<std::string, std::string>{{"user.kept", "yes"}}));
  EXPECT_EQ(FileSnapshot::take(source), compressed);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("copy", "source"));
}

}  // namespace
}  // namespace zephlore
