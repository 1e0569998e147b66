// Start-up recovery of a file a crash left inside its critical section, for
// each state the file and the copy beside it can be found in.
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/compressed_file_info.h"
#include "engine/file_content_reader.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/sibling_temp_file.h"

namespace zephlore {
namespace {

using testing::FileSnapshot;
using testing::ScratchDir;
using testing::compressibleData;
using testing::listFolder;
using testing::readFile;
using testing::writeFile;
using ::testing::ElementsAre;

using Rep = QVHFSCompressedFileRepresentation;

std::string copyNameOf(const std::string& path) {
  return SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kCompressedCopy);
}

void compress(const std::string& path) {
  Error error;
  ASSERT_TRUE(Rep::compressInPlacePath(path, &error)) << error.describe();
}

CompressionState stateOf(const std::string& path) {
  CompressedFileInfo info;
  Error error;
  EXPECT_TRUE(CompressedFileInfo::inspect(path, &info, &error)) << error.describe();
  return info.state;
}

TEST(QVHFSCompressedFileRepresentationRecoveryTest, KeepsWhatIsWholeAndRemovesTheCopyBesideIt) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(200000);

  // Gone: nothing to do.
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(dir / "gone", 5));

  // The swap never happened: the file is plain and the prepared copy (empty
  // data fork, compressed fork) is left beside it.
  const std::string plain = dir / "plain";
  writeFile(plain, data);
  const std::string prepared = dir / "prepared";
  writeFile(prepared, data);
  compress(prepared);
  ASSERT_EQ(rename(prepared.c_str(), copyNameOf(plain).c_str()), 0);
  const FileSnapshot plainBefore = FileSnapshot::take(plain);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(plain, data.size()));
  EXPECT_EQ(FileSnapshot::take(plain), plainBefore);

  // The swap completed: the copy's name holds the original data.
  const std::string done = dir / "done";
  writeFile(done, data);
  compress(done);
  writeFile(copyNameOf(done), data);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(done, data.size()));
  EXPECT_EQ(stateOf(done), CompressionState::kCompressed);

  // An empty plain file reports false, and stays.
  const std::string empty = dir / "empty";
  writeFile(empty, "");
  EXPECT_FALSE(Rep::recoverInProcessFileAtPath(empty, 0));

  EXPECT_THAT(listFolder(dir.path()), ElementsAre("done", "empty", "plain"));
}

TEST(QVHFSCompressedFileRepresentationRecoveryTest, ExpandsAHalfMadeFileGivingItTheRecordedSize) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(3 * 65536 + 5);
  const std::string path = dir / "half";
  writeFile(path, data);
  compress(path);
  // A fork without its header and flag, as an interrupted swap leaves it.
  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.apple.decmpfs"), 0);
  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  writeFile(copyNameOf(path), data);  // the original data beside it
  EXPECT_EQ(stateOf(path), CompressionState::kIncomplete);

  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(path, data.size()));
  EXPECT_TRUE(readFile(path) == data);
  EXPECT_EQ(stateOf(path), CompressionState::kPlain);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("half"));
}

TEST(QVHFSCompressedFileRepresentationRecoveryTest, FallsBackToTheOriginalDataWhenTheForkIsBroken) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(100000);
  const std::string path = dir / "broken";
  writeFile(path, data);
  compress(path);
  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.ResourceFork", "garbage", 7, 0), 0);
  writeFile(copyNameOf(path), data);

  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(path, data.size()));
  EXPECT_TRUE(readFile(path) == data);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("broken"));

  // Without the original beside it there is nothing to restore from.
  compress(path);
  ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.com.apple.ResourceFork", "garbage", 7, 0), 0);
  const FileSnapshot before = FileSnapshot::take(path);
  EXPECT_FALSE(Rep::recoverInProcessFileAtPath(path, data.size()));
  EXPECT_EQ(FileSnapshot::take(path), before);
}

TEST(QVHFSCompressedFileRepresentationRecoveryTest, NeverTouchesWhatIsNotOursBesideTheFile) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(100000);
  const std::string path = dir / "file";
  writeFile(path, data);
  const std::string victim = dir / "victim";
  writeFile(victim, "must stay");
  ASSERT_EQ(symlink(victim.c_str(), copyNameOf(path).c_str()), 0);
  const std::string expandedName = SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kExpandedCopy);
  ASSERT_EQ(mkdir(expandedName.c_str(), 0700), 0);

  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(path, data.size()));
  EXPECT_EQ(readFile(victim), "must stay");
  struct stat st;
  EXPECT_EQ(lstat(copyNameOf(path).c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(lstat(expandedName.c_str(), &st), 0);
  EXPECT_TRUE(readFile(path) == data);
}

}  // namespace
}  // namespace zephlore
