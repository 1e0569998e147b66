// The compressor on real disk file systems (loop-mounted images; skipped
// where this process may not mount): ext4 as distributions make it keeps
// about 4 KiB of attributes per file and cannot hold a fork, so compressing
// there must fail cleanly; ext4 with large attribute values can.
#include <dirent.h>
#include <sys/xattr.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/compressed_file_info.h"
#include "engine/file_content_reader.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "platform/platform_test_support.h"
#include "platform/volume_capabilities.h"

namespace zephlore {
namespace {

using testing::LoopMount;
using ::testing::UnorderedElementsAre;

std::string text(size_t n) {
  std::string out;
  for (size_t i = 0; out.size() < n; ++i) out += "line " + std::to_string(i * 7919 % 1000) + " of the log\n";
  out.resize(n);
  return out;
}

std::vector<std::string> namesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  return names;
}

TEST(CompressorOnRealVolumesTest, DefaultExt4RefusesCleanly) {
  LoopMount ext4(testing::kDefaultExt4);
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  VolumeCapabilities::forget();  // an earlier image may have had the same device number
  const std::string path = ext4 / "file.log";
  const std::string data = text(1 << 20);
  testing::writeFile(path, data, 0640);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.note", "kept", 4, 0), 0);
  struct stat before;
  ASSERT_EQ(lstat(path.c_str(), &before), 0);

  Error error;
  EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error));
  EXPECT_EQ(error.code, kHFSErrorVolumeCannotHold) << error.describe();
  EXPECT_THAT(error.message, ::testing::HasSubstr("cannot hold the compressed form"));

  struct stat after;
  ASSERT_EQ(lstat(path.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_TRUE(testing::readFile(path) == data);
  char names[256];
  ssize_t n = llistxattr(path.c_str(), names, sizeof names);
  EXPECT_EQ(std::string(names, static_cast<size_t>(n)), std::string("user.note\0", 10));
  EXPECT_THAT(namesIn(ext4.path()), UnorderedElementsAre("lost+found", "file.log"));
}

TEST(CompressorOnRealVolumesTest, Ext4WithLargeAttributeValuesRoundTrips) {
  LoopMount ext4("mkfs.ext4 -q -F -O ea_inode");
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  VolumeCapabilities::forget();  // an earlier image may have had the same device number
  const std::string path = ext4 / "file.log";
  const std::string data = text(3 << 20);
  testing::writeFile(path, data, 0640);

  Error error;
  int64_t saved = 0;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error, &saved)) << error.describe();
  EXPECT_GT(saved, 0);
  CompressedFileInfo info;
  ASSERT_TRUE(CompressedFileInfo::inspect(path, &info, &error)) << error.describe();
  EXPECT_EQ(info.state, CompressionState::kCompressed);
  std::unique_ptr<FileContentReader> reader = FileContentReader::open(path, &error);
  ASSERT_NE(reader, nullptr) << error.describe();
  std::string content(data.size(), '\0');
  size_t got = 0;
  ASSERT_TRUE(reader->read(0, content.data(), content.size(), &got, &error)) << error.describe();
  EXPECT_TRUE(content == data);

  ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(path, &error)) << error.describe();
  EXPECT_TRUE(testing::readFile(path) == data);
  EXPECT_THAT(namesIn(ext4.path()), UnorderedElementsAre("lost+found", "file.log"));
}

}  // namespace
}  // namespace zephlore
