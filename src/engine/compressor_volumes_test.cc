// The compressor on loop-mounted disk file systems and a tmpfs of its own
// (skipped where this process may not mount): ext4 as distributions make it
// keeps about 4 KiB of attributes per file and cannot hold a fork, so
// compressing there fails cleanly and says why; ext4 with large attribute
// values round-trips, up to the attributes it keeps for one file; and no
// volume takes a fork whose pieces a file's attribute list cannot name.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "engine/content_for_tests.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "platform/volume_capabilities.h"
#include "testing/files.h"
#include "testing/loop_mount.h"
#include "testing/private_tmpfs.h"

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
    bool compressed = QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), path, &error);
    char names[64] = {};
    if (!largeValues) {
      EXPECT_FALSE(compressed);
      EXPECT_EQ(error.code, kHFSErrorVolumeCannotHold) << error.describe();
      // Far from full: the message says what the volume lacks, not ENOSPC.
      EXPECT_NE(error.message.find("accepts at most"), std::string::npos) << error.message;
      EXPECT_NE(error.message.find("(ext4 without ea_inode)"), std::string::npos) << error.message;
      EXPECT_EQ(error.message.find("No space left"), std::string::npos) << error.message;
      ASSERT_EQ(lstat(path.c_str(), &after), 0);
      EXPECT_EQ(after.st_ino, before.st_ino);
      EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
      EXPECT_TRUE(testkit::readFile(path) == data);
      EXPECT_EQ(llistxattr(path.c_str(), names, sizeof names), 10);  // "user.note" alone
    } else {
      ASSERT_TRUE(compressed) << error.describe();
      EXPECT_EQ(testkit::stateOf(path), CompressionState::kCompressed);
      EXPECT_TRUE(testkit::contentOf(path) == data);
      ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(Env::system(), path, &error)) << error.describe();
      EXPECT_TRUE(testkit::readFile(path) == data);
    }
    EXPECT_EQ(std::system(("test \"$(ls -A " + ext4.path() + ")\" = \"file.log\nlost+found\"").c_str()), 0);
  }
}

// Bytes that compress to about 94 %: 60 KiB of noise and 4 KiB of zeros in
// every block (zeros alone would shrink to nothing, noise alone not at all).
std::string barelyCompressible(size_t blocks, uint64_t seed) {
  std::mt19937_64 random(seed);
  std::string out(blocks * 65536, '\0');
  for (size_t block = 0; block < blocks; ++block) {
    for (size_t i = 0; i < 61440; i += 8) {
      const uint64_t word = random();
      std::memcpy(out.data() + block * 65536 + i, &word, 8);
    }
  }
  return out;
}

// ext4 with ea_inode names all of a file's attributes in one block (1 KiB on
// an image this small): a fork passing that fails as too large for the form
// on its volume, not as a volume that cannot hold the form.
TEST(CompressorOnRealVolumesTest, Ext4WithLargeValuesRefusesAForkLargerThanOneFileKeeps) {
  testkit::LoopMount ext4("mkfs.ext4 -q -F -O ea_inode");
  if (!ext4.ok()) GTEST_SKIP() << ext4.skipReason();
  VolumeCapabilities::forget();
  const std::string path = ext4 / "large";
  const std::string data = barelyCompressible(64, 7);  // 4 MiB
  testkit::writeFile(path, data, 0640);
  Error error;
  EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), path, &error));
  EXPECT_EQ(error.code, kHFSErrorTooLargeForForm) << error.describe();
  EXPECT_NE(error.message.find("refused more"), std::string::npos) << error.message;
  EXPECT_EQ(error.message.find("No space left"), std::string::npos) << error.message;
  EXPECT_TRUE(testkit::readFile(path) == data);
  EXPECT_EQ(llistxattr(path.c_str(), nullptr, 0), 0);
}

// A real file just past the limit (2016 pieces of 64 KiB: 126 MiB of
// compressed data) on tmpfs, which takes values of 64 KiB without a limit
// per file. Past the limit comes a block of pure noise, which would fail
// as not compressible (704): the run must stop at the limit, not after
// compressing the whole file. About 3 s of processor time: heavy.
TEST(CompressorOnRealVolumesTest, AForkPastTheAttributeListIsRefusedAsSoonAsItPassesItHeavy) {
  testkit::PrivateTmpfs tmpfs("1g");
  if (!tmpfs.mounted()) GTEST_SKIP() << "needs root to mount a tmpfs of its own";
  const std::string path = tmpfs / "large";
  std::string data = barelyCompressible(140 * 16, 11);
  std::mt19937_64 random(13);
  for (size_t i = 0; i < 65536; i += 8) {
    const uint64_t word = random();
    data.append(reinterpret_cast<const char*>(&word), 8);
  }
  testkit::writeFile(path, data, 0640);
  data.clear();
  data.shrink_to_fit();
  struct stat before, after;
  ASSERT_EQ(lstat(path.c_str(), &before), 0);

  Error error;
  HFSCompressionOptions options;
  options.workers = 2;
  EXPECT_FALSE(
      QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), path, &error, nullptr, nullptr, nullptr, options));
  EXPECT_EQ(error.code, kHFSErrorTooLargeForForm) << error.describe();
  EXPECT_NE(error.message.find("2016 fork pieces of 65536 bytes"), std::string::npos) << error.message;
  ASSERT_EQ(lstat(path.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_size, before.st_size);
  EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
  EXPECT_EQ(llistxattr(path.c_str(), nullptr, 0), 0);
}

}  // namespace
}  // namespace zephlore
