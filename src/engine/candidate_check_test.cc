#include "engine/candidate_check.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "engine/extended_attributes_helper.h"
#include "engine/hfs_compressed_file_representation.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

CandidateRejection check(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return CandidateRejection::kVanished;
  Error error;
  return checkCompressCandidate(Env::system(), {path, AT_FDCWD, path.c_str(), &st, true}, false, &error);
}

TEST(CandidateCheck, SizeLinksExecuteBitsAndMarkers) {
  ScratchDir dir;
  writeFile(dir / "4095", std::string(4095, 'a'));
  writeFile(dir / "4096", std::string(4096, 'a'));
  EXPECT_EQ(check(dir / "4095"), CandidateRejection::kTooSmall);
  EXPECT_EQ(check(dir / "4096"), CandidateRejection::kNone);

  // Any one execute bit is enough to leave a file alone.
  for (mode_t bit : {S_IXUSR, S_IXGRP, S_IXOTH}) {
    ASSERT_EQ(chmod((dir / "4096").c_str(), 0644 | bit), 0);
    EXPECT_EQ(check(dir / "4096"), CandidateRejection::kExecutable) << bit;
  }
  ASSERT_EQ(chmod((dir / "4096").c_str(), 0644), 0);

  ASSERT_EQ(link((dir / "4096").c_str(), (dir / "other").c_str()), 0);
  EXPECT_EQ(check(dir / "4096"), CandidateRejection::kHardLinks);
  ASSERT_EQ(unlink((dir / "other").c_str()), 0);

  ASSERT_TRUE(KRExtendedAttributesHelper::setUncompressableAttributeAt(Env::system(), dir / "4096"));
  EXPECT_EQ(check(dir / "4096"), CandidateRejection::kMarkedNotCompressible);

  ASSERT_EQ(symlink("4096", (dir / "link").c_str()), 0);
  EXPECT_EQ(check(dir / "link"), CandidateRejection::kNotRegular);

  // Compressed, then written into: told apart by the data fork, short or long.
  testkit::ScopedRuntimeDir runtime;
  const std::string packed = dir / "packed";
  writeFile(packed, testkit::compressibleData(20000));
  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(Env::system(), packed, &error)) << error.describe();
  EXPECT_EQ(check(packed), CandidateRejection::kAlreadyCompressed);
  for (size_t appended : {4, 5000}) {
    const int fd = open(packed.c_str(), O_WRONLY | O_APPEND);
    ASSERT_EQ(write(fd, std::string(appended, 'x').data(), appended), static_cast<ssize_t>(appended));
    close(fd);
    EXPECT_EQ(check(packed), CandidateRejection::kCompressionAttributes) << appended;
  }
}

}  // namespace
}  // namespace zephlore
