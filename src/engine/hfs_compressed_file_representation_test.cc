#include "engine/hfs_compressed_file_representation.h"

#include <fcntl.h>
#include <sys/acl.h>
#include <sys/file.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/content_for_tests.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "engine/sibling_temp_file.h"
#include "testing/test_home.h"

namespace zephlore {
namespace {

using namespace testkit;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Rep = QVHFSCompressedFileRepresentation;

// An odd mode, times to the nanosecond, a user attribute and an extended ACL.
void giveMetadata(const std::string& path) {
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.test.note", "kept", 4, 0), 0);
  acl_t acl = acl_from_text("u::rw-,u:1234:r--,g::r--,m::r--,o::---");
  ASSERT_EQ(acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl), 0);
  acl_free(acl);
  const struct timespec times[2] = {{1600000000, 123456789}, {1500000000, 987654321}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

class QVHFSCompressedFileRepresentationTest : public ::testing::Test {
 protected:
  ScopedRuntimeDir runtime;
  ScratchDir dir;
};

TEST_F(QVHFSCompressedFileRepresentationTest, RoundTripKeepsContentAndMetadataAtEverySizeThatMatters) {
  const std::string path = dir / "file.txt";
  for (size_t size : {0, 1, 4095, 4096, 65536, 65537, 3 * 65536 + 7, 3 << 20}) {
    SCOPED_TRACE(size);
    const std::string data = compressibleData(size, static_cast<uint32_t>(size));
    writeFile(path, data);
    giveMetadata(path);
    const FileSnapshot before = FileSnapshot::take(path);
    const int64_t bytesBefore = before.st.st_blocks * 512;
    Error error;
    int64_t saved = -7, uncompressed = -7;
    HFSCompressionOptions options;
    options.workers = size > 65536 ? 2 : 1;
    ASSERT_TRUE(Rep::compressInPlacePath(Env::system(), path, &error, &saved, &uncompressed, nullptr, options)) << error.describe();
    EXPECT_EQ(uncompressed, static_cast<int64_t>(size));
    EXPECT_EQ(saved == -7, size == 0);  // an empty file saves nothing: left as it was

    CompressedFileInfo info;
    ASSERT_TRUE(CompressedFileInfo::inspect(Env::system(), path, &info, &error)) << error.describe();
    EXPECT_EQ(info.state, CompressionState::kCompressed);
    EXPECT_EQ(info.dataForkSize, 0u);
    EXPECT_EQ(info.uncompressedSize, size);
    EXPECT_EQ(info.blockCount, (size + 65535) / 65536);
    if (size == 0) {
      EXPECT_EQ(info.forkSize, 314u);
    } else if (size >= 65536) {
      // Only space really freed counts: tmpfs does not count attributes in
      // st_blocks, so the fork still counts against it.
      EXPECT_GT(saved, 0);
      EXPECT_LE(saved, bytesBefore - static_cast<int64_t>(info.forkSize));
    }
    FileSnapshot compressed = FileSnapshot::take(path);
    EXPECT_TRUE(contentOf(path) == data);
    for (const char* kept : {"user.test.note", "system.posix_acl_access"}) {
      EXPECT_EQ(compressed.attributes[kept], before.attributes.at(kept)) << kept;
    }
    compressed.attributes = before.attributes;
    compressed.content = data;
    EXPECT_TRUE(compressed.sameExceptInode(before)) << compressed << "\n" << before;
    EXPECT_THAT(listFolder(dir.path()), ElementsAre("file.txt"));  // nothing left beside it

    int64_t forkBytes = 0, contentBytes = 0;
    ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(Env::system(), path, &error, &forkBytes, &contentBytes, false, {2}))
        << error.describe();
    EXPECT_EQ(contentBytes, static_cast<int64_t>(size));
    EXPECT_EQ(static_cast<uint64_t>(forkBytes), info.forkSize);
    EXPECT_TRUE(FileSnapshot::take(path).sameExceptInode(before));
    EXPECT_THAT(listFolder(dir.path()), ElementsAre("file.txt"));
  }
}

// A fork the original system wrote for a real file: ours must be the same
// bytes, through the whole path (image, attribute pieces, header, flag).
TEST_F(QVHFSCompressedFileRepresentationTest, WritesTheReferenceForkByteForByte) {
  const std::string testdata = std::string(ZEPHLORE_SOURCE_DIR) + "/../shared/testdata/macos-zlib-fork/";
  const std::string original = readFile(testdata + "zlib.expected");
  const std::string path = dir / "words";
  writeFile(path, original);
  Error error;
  ASSERT_TRUE(Rep::compressInPlacePath(Env::system(), path, &error)) << error.describe();
  std::map<std::string, std::string> attributes = attributesOf(path);
  EXPECT_TRUE(attributes["user.com.apple.ResourceFork"] == readFile(testdata + "real_zlib_rsrc.rsrc"));
  EXPECT_EQ(attributes["user.com.apple.decmpfs"], std::string("fpmc\x04\0\0\0\xf0\x49\x02\0\0\0\0\0", 16));
  EXPECT_EQ(attributes["user.com.quorvane.zephlore.flags"], std::string("\x20\0\0\0", 4));
  EXPECT_EQ(readFile(path), "");
  ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(Env::system(), path, &error)) << error.describe();
  EXPECT_TRUE(readFile(path) == original);
  EXPECT_TRUE(attributesOf(path).empty());
}

// Every file the engine must not rewrite is refused with its own error and
// left exactly as it was.
TEST_F(QVHFSCompressedFileRepresentationTest, RefusesFilesItMustNotRewrite) {
  auto expectRefused = [&](const std::string& path, int code, const std::string& message) {
    SCOPED_TRACE(path);
    struct stat st;
    const bool regular = lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    const FileSnapshot before = regular ? FileSnapshot::take(path) : FileSnapshot();
    Error error;
    EXPECT_FALSE(Rep::compressInPlacePath(Env::system(), path, &error));
    EXPECT_EQ(error.domain, kHFSErrorDomain);
    EXPECT_EQ(error.code, code);
    EXPECT_THAT(error.message, HasSubstr(message));
    if (regular) {
      EXPECT_EQ(FileSnapshot::take(path), before);
    }
  };
  const std::string data = compressibleData(100000);
  for (const char* name : {"linked", "target", "line\nfeed", "bad\xff\xfe"}) writeFile(dir / name, data);
  writeFile(dir / "noise", randomData(3 * 65536 + 11));
  ASSERT_EQ(link((dir / "linked").c_str(), (dir / "other-name").c_str()), 0);
  ASSERT_EQ(symlink((dir / "target").c_str(), (dir / "symlink").c_str()), 0);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);

  expectRefused(dir / "noise", kHFSErrorNotCompressible, "Source data cannot be compressed");
  expectRefused(dir / "linked", kHFSErrorHardLinks, "File at path " + dir / "linked has more than one hard link");
  for (const std::string& path : {dir / "symlink", dir / "fifo", dir.path(), std::string("/dev/null")}) {
    expectRefused(path, kHFSErrorNotRegularFile, "is not a regular file");
  }
  expectRefused(dir / "missing", kHFSErrorCouldNotOpen, "Could not stat source file at");
  expectRefused(dir / "line\nfeed", kHFSErrorLineFeedInPath, "contains a line feed");
  expectRefused(dir / "bad\xff\xfe", kHFSErrorPathNotUTF8, "is not valid UTF-8");
  expectRefused(dir / std::string(300, 'n'), kHFSErrorPathTooLong, "is too long");

  const std::string target = dir / "target";
  int holder = open(target.c_str(), O_RDONLY);  // a cooperating program's lock
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  expectRefused(target, kHFSErrorLocked, "File at path " + target + " is locked by other process");
  close(holder);
  Error error;
  ASSERT_TRUE(Rep::compressInPlacePath(Env::system(), target, &error)) << error.describe();
  expectRefused(target, kHFSErrorAlreadyCompressed, "File at path " + target + " already compressed");
  writeFile(target, "written by a program that knows nothing of compression");
  expectRefused(target, kHFSErrorWrittenAfterCompression, "was written after it was compressed");
}

TEST_F(QVHFSCompressedFileRepresentationTest, LeavesAFileAloneThatAnotherProcessChangesOrWrites) {
  const std::string path = dir / "busy.log";
  writeFile(path, compressibleData(200000));
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });

  // Changed between reading and the swap.
  Error error;
  auto representation = Rep::createFromContentsOfFile(Env::system(), path, &error);
  ASSERT_NE(representation, nullptr) << error.describe();
  writeFile(path, compressibleData(200001));
  FileSnapshot before = FileSnapshot::take(path);
  EXPECT_FALSE(representation->saveToHFSCompressedFile(path, &error));
  EXPECT_EQ(error.code, kHFSErrorModified);
  EXPECT_THAT(lines, ElementsAre("**** File " + path + " modified while compressing, aborting"));
  EXPECT_EQ(FileSnapshot::take(path), before);

  // Open for writing in another process: refused without a message. (The
  // child must not inherit our read descriptor: a process counts by its
  // first descriptor of the file.)
  representation.reset();
  int ready[2], release[2];
  ASSERT_EQ(pipe(ready) | pipe(release), 0);
  pid_t child = fork();
  if (child == 0) {
    char c = open(path.c_str(), O_WRONLY) >= 0 ? 'y' : 'n';
    _exit(write(ready[1], &c, 1) == 1 && read(release[0], &c, 1) == 1 ? 0 : 1);
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');
  lines.clear();
  EXPECT_FALSE(Rep::compressInPlacePath(Env::system(), path, &error));
  EXPECT_EQ(error.code, kHFSErrorOpenForWriting);
  EXPECT_THAT(lines, ::testing::IsEmpty());
  EXPECT_EQ(FileSnapshot::take(path), before);
  ASSERT_EQ(write(release[1], "x", 1), 1);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(Rep::compressInPlacePath(Env::system(), path, &error)) << error.describe();  // the writer is gone
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("busy.log"));
}

// Read from a file, the fork waits in an unnamed copy beside it: saved where
// nothing is (as when the file went away meanwhile) first, then in place,
// which uses up that copy.
TEST_F(QVHFSCompressedFileRepresentationTest, SavesWhereNothingIsThenInPlace) {
  const std::string data = compressibleData(300000);
  writeFile(dir / "source", data);
  Error error;
  auto fromFile = Rep::createFromContentsOfFile(Env::system(), dir / "source", &error);
  ASSERT_NE(fromFile, nullptr) << error.describe();
  ASSERT_TRUE(fromFile->saveToHFSCompressedFile(dir / "elsewhere", &error)) << error.describe();
  EXPECT_TRUE(contentOf(dir / "elsewhere") == data);
  EXPECT_EQ(FileSnapshot::take(dir / "elsewhere").st.st_mode & 07777, 0644u);  // the source's
  EXPECT_TRUE(readFile(dir / "source") == data);
  ASSERT_TRUE(fromFile->saveToHFSCompressedFile(dir / "source", &error)) << error.describe();
  EXPECT_TRUE(contentOf(dir / "source") == data);
  EXPECT_FALSE(fromFile->saveToHFSCompressedFile(dir / "third", &error));
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("elsewhere", "source"));
}

// A symbolic link planted at the copy's name is never followed or replaced;
// a copy of our own left by a crash is.
TEST_F(QVHFSCompressedFileRepresentationTest, PlantedLinkAtTheCopysNameIsNeverFollowed) {
  const std::string path = dir / "file";
  writeFile(path, compressibleData(100000));
  writeFile(dir / "victim", "must stay");
  const std::string copyName = SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kCompressedCopy);
  ASSERT_EQ(symlink((dir / "victim").c_str(), copyName.c_str()), 0);
  const FileSnapshot before = FileSnapshot::take(path);
  Error error;
  EXPECT_FALSE(Rep::compressInPlacePath(Env::system(), path, &error));
  EXPECT_EQ(error.code, kHFSErrorSwapFailed);
  EXPECT_EQ(FileSnapshot::take(path), before);
  EXPECT_EQ(readFile(dir / "victim"), "must stay");
  struct stat st;
  EXPECT_TRUE(lstat(copyName.c_str(), &st) == 0 && S_ISLNK(st.st_mode));

  unlink(copyName.c_str());
  writeFile(copyName, "a leftover of ours");
  EXPECT_TRUE(Rep::compressInPlacePath(Env::system(), path, &error)) << error.describe();
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("file", "victim"));
}

}  // namespace
}  // namespace zephlore
