// The compressor on loop-mounted disk file systems (skipped where this
// process may not mount): ext4 as distributions make it keeps about 4 KiB of
// attributes per file and cannot hold a fork, so compressing there fails
// cleanly; ext4 with large attribute values round-trips.
#include <fcntl.h>
#include <sys/xattr.h>

#include <gtest/gtest.h>

#include "engine/file_content_reader.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "platform/volume_capabilities.h"
#include "testing/files.h"
#include "testing/loop_mount.h"

namespace zephlore {
namespace {

std::string logText(size_t n) {
  std::string out;
  for (size_t i = 0; out.size() < n; ++i) out += "line " + std::to_string(i * 7919 % 1000) + " of the log\n";
  out.resize(n);
  return out;
}

TEST(CompressorOnRealVolumesTest, DefaultExt4RefusesCleanlyWhileLargeAttributeValuesRoundTrip) {
  for (bool largeValues : {false, true}) {
    SCOPED_TRACE(largeValues ? "ea_inode" : "default");
    testkit::LoopMount ext4(largeValues ? "mkfs.ext4 -q -F -O ea_inode" : testkit::kDefaultExt4);
    if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
    VolumeCapabilities::forget();  // an earlier image may have had the same device number
    const std::string path = ext4 / "file.log";
    const std::string data = logText(3 << 20);
    testkit::writeFile(path, data, 0640);
    ASSERT_EQ(lsetxattr(path.c_str(), "user.note", "kept", 4, 0), 0);
    struct stat before, after;
    ASSERT_EQ(lstat(path.c_str(), &before), 0);

    Error error;
    bool compressed = QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error);
    char names[64] = {};
    if (!largeValues) {
      EXPECT_FALSE(compressed);
      EXPECT_EQ(error.code, kHFSErrorVolumeCannotHold) << error.describe();
      ASSERT_EQ(lstat(path.c_str(), &after), 0);
      EXPECT_EQ(after.st_ino, before.st_ino);
      EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
      EXPECT_TRUE(testkit::readFile(path) == data);
      EXPECT_EQ(llistxattr(path.c_str(), names, sizeof names), 10);  // "user.note" alone
    } else {
      ASSERT_TRUE(compressed) << error.describe();
      std::unique_ptr<FileContentReader> reader = FileContentReader::open(path, &error);
      ASSERT_TRUE(reader && reader->isCompressed()) << error.describe();
      std::string content(data.size(), '\0');
      size_t got = 0;
      EXPECT_TRUE(reader->read(0, content.data(), content.size(), &got, &error) && content == data);
      ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(path, &error)) << error.describe();
      EXPECT_TRUE(testkit::readFile(path) == data);
    }
    EXPECT_EQ(std::system(("test \"$(ls -A " + ext4.path() + ")\" = \"file.log\nlost+found\"").c_str()), 0);
  }
}

}  // namespace
}  // namespace zephlore
