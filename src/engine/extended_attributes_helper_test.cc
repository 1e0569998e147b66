#include "engine/extended_attributes_helper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/clock.h"
#include "engine/xattr_metadata_store.h"
#include "platform/env.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;
using Helper = KRExtendedAttributesHelper;
using Store = RZXattrMetadataStore;

void setMtime(const std::string& path, time_t sec, long nsec) {
  const struct timespec times[2] = {{0, UTIME_OMIT}, {sec, nsec}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

TEST(KRExtendedAttributesHelper, ExcludeMarkerIsValidUntilTheFileIsModified) {
  ScratchDir dir;
  const std::string file = dir / "f";
  writeFile(file, "data");
  setMtime(file, 1600000000, 123456789);

  EXPECT_FALSE(Helper::isUncompressableAttributeSetAt(Env::system(), file));
  EXPECT_FALSE(Helper::isUncompressableAttributeValidAt(Env::system(), file));
  ASSERT_TRUE(Helper::setUncompressableAttributeAt(Env::system(), file));
  auto raw = Env::system().getxattrValue(FileRef::atPath(file), "com.quorvane.zephlore.exclude");
  ASSERT_TRUE(raw);
  ASSERT_EQ(raw->size(), 16u);
  int64_t stored[2];
  memcpy(stored, raw->data(), 16);  // host order, little-endian here
  EXPECT_EQ(stored[0], 1600000000);
  EXPECT_EQ(stored[1], 123456789);
  EXPECT_TRUE(Helper::isUncompressableAttributeValidAt(Env::system(), file, true));

  // Only the nanoseconds change: no longer valid; kept unless asked.
  setMtime(file, 1600000000, 123456790);
  EXPECT_FALSE(Helper::isUncompressableAttributeValidAt(Env::system(), file));
  EXPECT_TRUE(Helper::isUncompressableAttributeSetAt(Env::system(), file));
  EXPECT_FALSE(Helper::isUncompressableAttributeValidAt(Env::system(), file, true));
  EXPECT_FALSE(Helper::isUncompressableAttributeSetAt(Env::system(), file));

  // A marker of another length is invalid and never removed.
  ASSERT_EQ(Env::system().setxattr(FileRef::atPath(file), "com.quorvane.zephlore.exclude",
                                   "short", 5, 0),
            0);
  EXPECT_FALSE(Helper::isUncompressableAttributeValidAt(Env::system(), file, true));
  EXPECT_TRUE(Helper::isUncompressableAttributeSetAt(Env::system(), file));
  EXPECT_TRUE(Helper::removeUncompressableAttributeAt(Env::system(), file));
  EXPECT_FALSE(Helper::removeUncompressableAttributeAt(Env::system(), file));

  // Not through a symbolic link; nothing for a missing file.
  ASSERT_EQ(symlink(file.c_str(), (dir / "link").c_str()), 0);
  EXPECT_FALSE(Helper::setUncompressableAttributeAt(Env::system(), dir / "link"));
  EXPECT_FALSE(Helper::isUncompressableAttributeSetAt(Env::system(), file));
  EXPECT_FALSE(Helper::setUncompressableAttributeAt(Env::system(), dir / "missing"));
}

// The store beneath the helper: written and removed raw, failing with the errno.
TEST(KRExtendedAttributesHelper, EitherCompressionAttributeCountsAndTheStoreGivesTheErrno) {
  ScratchDir dir;
  const std::string path = dir / "f";
  writeFile(path, "");
  const FileRef file = FileRef::atPath(path);
  EXPECT_FALSE(Helper::isCompressionAttributeSetAt(Env::system(), path));
  ASSERT_EQ(Env::system().setxattr(file, "com.apple.ResourceFork", "r", 1, 0), 0);
  EXPECT_TRUE(Helper::isCompressionAttributeSetAt(Env::system(), path));
  ASSERT_EQ(Env::system().removexattr(file, "com.apple.ResourceFork"), 0);
  ASSERT_EQ(Env::system().setxattr(file, "com.apple.decmpfs", "d", 1, 0), 0);
  EXPECT_TRUE(Helper::isCompressionAttributeSetAt(Env::system(), path));

  Error error;
  ASSERT_TRUE(Store::setData(Env::system(), std::vector<uint8_t>{0, 1, 2}, "raw", path, false, &error));
  EXPECT_EQ(Env::system().getxattrValue(file, "raw"), (std::vector<uint8_t>{0, 1, 2}));
  ASSERT_TRUE(Store::removeKey(Env::system(), "raw", path, false, &error));
  EXPECT_FALSE(Store::removeKey(Env::system(), "raw", path, false, &error));
  EXPECT_EQ(error.domain, kXattrErrorDomain);
  EXPECT_EQ(error.code, ENODATA);
  EXPECT_FALSE(Store::setData(Env::system(), "x", 1, "k", dir / "missing", false, &error));
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_TRUE(error.message.empty());
}

TEST(KRCompressionSignature, ArchivesAsABinaryPropertyListAndSurvivesGarbage) {
  ManualClock clock;
  const auto signature = KRCompressionSignature::signatureWithUncompressedSize(123456789012ull, clock);
  EXPECT_EQ(signature.lastCompressed(), 1.8e9);
  clock.advance(seconds(90.5));
  EXPECT_DOUBLE_EQ(signature.age(clock), 90.5);

  const std::vector<uint8_t> archive = signature.archive();
  ASSERT_GT(archive.size(), 8u);
  EXPECT_EQ(std::string(archive.begin(), archive.begin() + 8), "bplist00");
  EXPECT_EQ(KRCompressionSignature::unarchive(archive.data(), archive.size()), signature);

  // An XML archive with the same keys reads too; anything else does not.
  const std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
      "<key>uncompressedSize</key><integer>42</integer>"
      "<key>lastCompressed</key><real>1.5</real></dict></plist>";
  EXPECT_EQ(KRCompressionSignature::unarchive(xml.data(), xml.size()),
            KRCompressionSignature(42, 1.5));
  for (const std::string& bad :
       {std::string("garbage bytes"), std::string("bplist00\xff\xff\xff"),
        std::string("<plist version=\"1.0\"><array/></plist>"),
        std::string("<plist version=\"1.0\"><dict><key>uncompressedSize</key>"
                    "<string>42</string><key>lastCompressed</key><real>1</real></dict></plist>"),
        std::string(archive.begin(), archive.end() - 3)}) {
    EXPECT_FALSE(KRCompressionSignature::unarchive(bad.data(), bad.size())) << bad;
  }
  EXPECT_FALSE(KRCompressionSignature::unarchive(nullptr, 0));

  ScratchDir dir;
  writeFile(dir / "f", "");
  EXPECT_FALSE(Helper::compressionSignatureAtPath(Env::system(), dir / "f"));
  ASSERT_TRUE(Helper::setCompressionSignature(Env::system(), signature, dir / "f"));
  EXPECT_EQ(Helper::compressionSignatureAtPath(Env::system(), dir / "f"), signature);
  ASSERT_EQ(Env::system().setxattr(FileRef::atPath(dir / "f"), "com.quorvane.zephlore.signature",
                                   "\x00\x01garbage", 9, 0),
            0);
  EXPECT_FALSE(Helper::compressionSignatureAtPath(Env::system(), dir / "f"));
  EXPECT_FALSE(Helper::setCompressionSignature(Env::system(), signature, dir / "missing"));
}

}  // namespace
}  // namespace zephlore
