// Start-up recovery of a file a crash left inside its critical section, for
// each state the file and the copy beside it can be found in.
#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/compressed_file_info.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/sibling_temp_file.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;
using ::testing::ElementsAre;
using Rep = QVHFSCompressedFileRepresentation;

// Compressed, then (optionally) stripped of the header and flag, as a swap
// cut short by an older version leaves it.
void compress(const std::string& path, bool halfMade = false) {
  Error error;
  ASSERT_TRUE(Rep::compressInPlacePath(Env::system(), path, &error)) << error.describe();
  if (halfMade) {
    ASSERT_EQ(lremovexattr(path.c_str(), "user.com.apple.decmpfs"), 0);
    ASSERT_EQ(lremovexattr(path.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  }
}

class QVHFSCompressedFileRepresentationRecoveryTest : public ::testing::Test {
 protected:
  ScopedRuntimeDir runtime;
  ScratchDir dir;
};

TEST_F(QVHFSCompressedFileRepresentationRecoveryTest, KeepsWhatIsWholeRepairsWhatIsNotAndClearsTheCopies) {
  const std::string data = compressibleData(3 * 65536 + 5);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(Env::system(), dir / "gone", 5));

  // Swap never made: the file is plain, the prepared copy lies beside it.
  const std::string plain = dir / "plain";
  writeFile(plain, data);
  writeFile(dir / "prepared", data);
  compress(dir / "prepared");
  ASSERT_EQ(rename((dir / "prepared").c_str(), copyNameOf(plain).c_str()), 0);
  const FileSnapshot plainBefore = FileSnapshot::take(plain);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(Env::system(), plain, data.size()));
  EXPECT_EQ(FileSnapshot::take(plain), plainBefore);

  // Swap made: the copy's name holds the original data.
  const std::string done = dir / "done";
  writeFile(done, data);
  compress(done);
  writeFile(copyNameOf(done), data);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(Env::system(), done, data.size()));
  EXPECT_EQ(stateOf(done), CompressionState::kCompressed);

  // Half made: given the header for the recorded size, and expanded.
  const std::string half = dir / "half";
  writeFile(half, data);
  compress(half, true);
  writeFile(copyNameOf(half), data);
  EXPECT_EQ(stateOf(half), CompressionState::kIncomplete);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(Env::system(), half, data.size()));
  EXPECT_TRUE(readFile(half) == data);

  // Half made with a broken fork: the original beside it comes back.
  const std::string broken = dir / "broken";
  writeFile(broken, data);
  compress(broken, true);
  ASSERT_EQ(lsetxattr(broken.c_str(), "user.com.apple.ResourceFork", "garbage", 7, 0), 0);
  writeFile(copyNameOf(broken), data);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(Env::system(), broken, data.size()));
  EXPECT_TRUE(readFile(broken) == data);

  writeFile(dir / "empty", "");  // an empty plain file reports false, and stays
  EXPECT_FALSE(Rep::recoverInProcessFileAtPath(Env::system(), dir / "empty", 0));
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("broken", "done", "empty", "half", "plain"));

  // Nothing to restore from: reported, and the file is left as it is.
  compress(broken);
  ASSERT_EQ(lremovexattr(broken.c_str(), "user.com.quorvane.zephlore.flags"), 0);
  ASSERT_EQ(lsetxattr(broken.c_str(), "user.com.apple.ResourceFork", "garbage", 7, 0), 0);
  const FileSnapshot before = FileSnapshot::take(broken);
  EXPECT_FALSE(Rep::recoverInProcessFileAtPath(Env::system(), broken, data.size()));
  EXPECT_EQ(FileSnapshot::take(broken), before);
}

// A program still writes the half-made file: neither expanded nor replaced
// by the original beside it, so what it writes stays at the name.
TEST_F(QVHFSCompressedFileRepresentationRecoveryTest, AFileSomebodyWritesIsLeftForALaterRun) {
  const std::string data = compressibleData(3 * 65536 + 5);
  const std::string half = dir / "half";
  writeFile(half, data);
  compress(half, true);
  writeFile(copyNameOf(half), data);
  const int writer = open(half.c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(writer, 0);
  EXPECT_FALSE(Rep::recoverInProcessFileAtPath(Env::system(), half, data.size()));
  ASSERT_EQ(write(writer, "late", 4), 4);
  close(writer);
  EXPECT_EQ(readFile(half), "late");
  EXPECT_TRUE(readFile(copyNameOf(half)) == data);
}

TEST_F(QVHFSCompressedFileRepresentationRecoveryTest, NeverTouchesWhatIsNotOursBesideTheFile) {
  const std::string path = dir / "file";
  writeFile(path, "content");
  writeFile(dir / "victim", "must stay");
  ASSERT_EQ(symlink((dir / "victim").c_str(), copyNameOf(path).c_str()), 0);
  const std::string expanded = SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kExpandedCopy);
  ASSERT_EQ(mkdir(expanded.c_str(), 0700), 0);
  EXPECT_TRUE(Rep::recoverInProcessFileAtPath(Env::system(), path, 7));
  EXPECT_EQ(readFile(dir / "victim"), "must stay");
  EXPECT_EQ(listFolder(dir.path()).size(), 4u);
}

}  // namespace
}  // namespace zephlore
