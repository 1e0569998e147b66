#include "engine/hfs_uncompressor.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/compressed_file_info.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"

namespace zephlore {
namespace {

using testing::FileSnapshot;
using testing::ScratchDir;
using testing::compressibleData;
using testing::listFolder;
using testing::readFile;
using testing::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

void compress(const std::string& path) {
  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error)) << error.describe();
}

// Each refusal leaves the file exactly as it was, compressed or not.
TEST(QVHFSUncompressorTest, RefusesWhatItCannotExpandAndLeavesItAlone) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  auto expectRefused = [&](const std::string& path, bool ignoreFlag, int code, const std::string& message) {
    SCOPED_TRACE(path);
    const FileSnapshot before = FileSnapshot::take(path);
    Error error;
    EXPECT_FALSE(QVHFSUncompressor::expandInPlacePath(path, &error, nullptr, nullptr, ignoreFlag));
    EXPECT_EQ(error.domain, kHFSErrorDomain);
    EXPECT_EQ(error.code, code);
    EXPECT_THAT(error.message, HasSubstr(message));
    EXPECT_EQ(FileSnapshot::take(path), before);
    EXPECT_EQ(listFolder(dir.path()).size(), 1u);
  };

  const std::string path = dir / "file";
  writeFile(path, compressibleData(200000));
  expectRefused(path, false, kHFSErrorNotCompressed, "Source file is not compressed at " + path);

  // Compressed, then written into: neither version may be overwritten.
  compress(path);
  int fd = open(path.c_str(), O_WRONLY | O_APPEND);
  ASSERT_EQ(write(fd, "late", 4), 4);
  close(fd);
  expectRefused(path, false, kHFSErrorWrittenAfterCompression, "was written after it was compressed");
  ASSERT_EQ(truncate(path.c_str(), 0), 0);

  // Without the flag only recovery's forced expansion goes ahead.
  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  expectRefused(path, false, kHFSErrorNotCompressed, "Source file is not compressed at " + path);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.quorvane.zephlore.flags", "\x20\0\0\0", 4, 0), 0);

  // A block that does not inflate: flip a byte inside the first stream
  // (four blocks: the table ends and the streams begin at 0x128).
  std::string fork(300000, '\0');
  ssize_t n = lgetxattr(path.c_str(), "user.com.apple.ResourceFork", fork.data(), fork.size());
  ASSERT_GT(n, 0x140);
  fork.resize(static_cast<size_t>(n));
  fork[0x130] = static_cast<char>(fork[0x130] ^ 0x55);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.ResourceFork", fork.data(), fork.size(), 0), 0);
  expectRefused(path, false, kHFSErrorCannotUncompress, "Source data cannot be uncompressed");

  // A header of another kind.
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.decmpfs", "fpmc\x03\0\0\0\0\0\0\0\0\0\0\0", 16, 0), 0);
  expectRefused(path, true, kHFSErrorNotCompressed, "Source file is not compressed at " + path);
}

TEST(QVHFSUncompressorTest, ExpandedFileKeepsAttributesButNotTheMarkersOrCompressionOnes) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(70000);
  const std::string path = dir / "file";
  writeFile(path, data);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.kept", "yes", 3, 0), 0);
  compress(path);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.quorvane.zephlore.exclude", "0123456789abcdef", 16, 0), 0);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.quorvane.zephlore.signature", "sig", 3, 0), 0);

  Error error;
  ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(path, &error)) << error.describe();
  EXPECT_TRUE(readFile(path) == data);
  std::map<std::string, std::string> attributes = FileSnapshot::attributesOf(path);
  EXPECT_EQ(attributes.size(), 1u);
  EXPECT_EQ(attributes["user.kept"], "yes");
}

TEST(QVHFSUncompressorTest, ExpandsToAnotherPathLeavingTheSourceCompressed) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(150000);
  const std::string source = dir / "source";
  writeFile(source, data);
  compress(source);
  const FileSnapshot compressed = FileSnapshot::take(source);

  QVHFSUncompressor expander(source, {2});
  Error error;
  int64_t forkBytes = 0, contentBytes = 0;
  ASSERT_TRUE(expander.expandTo(dir / "copy", &error, &forkBytes, &contentBytes)) << error.describe();
  EXPECT_TRUE(readFile(dir / "copy") == data);
  EXPECT_EQ(contentBytes, 150000);
  EXPECT_GT(forkBytes, 0);
  struct stat st;
  ASSERT_EQ(lstat((dir / "copy").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(FileSnapshot::take(source), compressed);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("copy", "source"));
}

TEST(QVHFSUncompressorTest, AForkOfNoBlocksExpandsToAnEmptyFile) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "empty";
  writeFile(path, "");
  compress(path);
  EXPECT_EQ(FileSnapshot::attributesOf(path)["user.com.apple.ResourceFork"].size(), 314u);
  Error error;
  ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(path, &error)) << error.describe();
  EXPECT_EQ(readFile(path), "");
  EXPECT_TRUE(FileSnapshot::attributesOf(path).empty());
}

}  // namespace
}  // namespace zephlore
