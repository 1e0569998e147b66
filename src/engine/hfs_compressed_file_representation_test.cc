#include "engine/hfs_compressed_file_representation.h"

#include <fcntl.h>
#include <sys/acl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/file_content_reader.h"
#include "engine/file_snapshot_for_tests.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "engine/sibling_temp_file.h"

namespace zephlore {
namespace {

using testing::FileSnapshot;
using testing::ScratchDir;
using testing::compressibleData;
using testing::listFolder;
using testing::randomData;
using testing::readFile;
using testing::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* kDecmpfs = "user.com.apple.decmpfs";
constexpr const char* kFork = "user.com.apple.ResourceFork";
constexpr const char* kFlags = "user.com.quorvane.zephlore.flags";

// A file with everything a rewrite must keep: an odd mode, fixed times to
// the nanosecond, a user attribute and an extended ACL.
void giveMetadata(const std::string& path) {
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_EQ(lsetxattr(path.c_str(), "user.test.note", "kept", 4, 0), 0);
  acl_t acl = acl_from_text("u::rw-,u:1234:r--,g::r--,m::r--,o::---");
  ASSERT_NE(acl, nullptr);
  ASSERT_EQ(acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl), 0);
  acl_free(acl);
  const struct timespec times[2] = {{1600000000, 123456789}, {1500000000, 987654321}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

std::string contentOf(const std::string& path) {
  Error error;
  std::unique_ptr<FileContentReader> reader = FileContentReader::open(path, &error);
  if (!reader) return "<" + error.describe() + ">";
  std::string content(static_cast<size_t>(reader->size()), '\0');
  size_t got = 0;
  if (!reader->read(0, content.data(), content.size(), &got, &error)) return "<" + error.describe() + ">";
  content.resize(got);
  return content;
}

CompressionState stateOf(const std::string& path) {
  CompressedFileInfo info;
  Error error;
  EXPECT_TRUE(CompressedFileInfo::inspect(path, &info, &error)) << error.describe();
  return info.state;
}

TEST(QVHFSCompressedFileRepresentationTest, RoundTripKeepsContentAndMetadataAtEverySizeThatMatters) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const size_t sizes[] = {0, 1, 4095, 4096, 65536, 65537, 3 * 65536 + 7, 3 << 20};
  for (size_t size : sizes) {
    SCOPED_TRACE(size);
    const std::string path = dir / "file.txt";
    const std::string data = compressibleData(size, static_cast<uint32_t>(size));
    writeFile(path, data);
    giveMetadata(path);
    const FileSnapshot before = FileSnapshot::take(path);

    Error error;
    int64_t saved = -7, uncompressed = -7;
    HFSCompressionOptions options;
    options.workers = size > 65536 ? 2 : 1;
    ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error, &saved, &uncompressed,
                                                                       nullptr, options))
        << error.describe();
    EXPECT_EQ(uncompressed, static_cast<int64_t>(size));
    if (size == 0) {
      EXPECT_EQ(saved, -7);  // nothing to save: left as it was
    }

    CompressedFileInfo info;
    ASSERT_TRUE(CompressedFileInfo::inspect(path, &info, &error)) << error.describe();
    EXPECT_EQ(info.state, CompressionState::kCompressed);
    EXPECT_EQ(info.dataForkSize, 0u);
    EXPECT_EQ(info.uncompressedSize, size);
    EXPECT_EQ(info.blockCount, (size + 65535) / 65536);
    EXPECT_TRUE(info.hasCompressedFlag && info.hasDecmpfs && info.hasResourceFork);

    const FileSnapshot compressed = FileSnapshot::take(path);
    EXPECT_EQ(compressed.mode, before.mode);
    EXPECT_EQ(compressed.atimeNs, before.atimeNs);
    EXPECT_EQ(compressed.mtimeNs, before.mtimeNs);
    EXPECT_EQ(compressed.attributes.at("user.test.note"), "kept");
    EXPECT_EQ(compressed.attributes.at("system.posix_acl_access"), before.attributes.at("system.posix_acl_access"));
    EXPECT_TRUE(contentOf(path) == data);
    EXPECT_THAT(listFolder(dir.path()), ElementsAre("file.txt"));  // no copy left beside it

    int64_t forkBytes = 0, contentBytes = 0;
    ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(path, &error, &forkBytes, &contentBytes, false, {2}))
        << error.describe();
    EXPECT_EQ(contentBytes, static_cast<int64_t>(size));
    EXPECT_EQ(static_cast<uint64_t>(forkBytes), info.forkSize);
    const FileSnapshot expanded = FileSnapshot::take(path);
    EXPECT_TRUE(expanded.sameExceptInode(before)) << expanded << "\n" << before;
    EXPECT_THAT(listFolder(dir.path()), ElementsAre("file.txt"));
    unlink(path.c_str());
  }
}

// A fork that the original system wrote for a real file: our bytes must be
// exactly those, through the whole path (image, attribute pieces, header).
TEST(QVHFSCompressedFileRepresentationTest, WritesTheForkAndHeaderOfTheReferenceFileByteForByte) {
  testing::ScopedRuntimeDir runtime;
  const std::string testdata = std::string(ZEPHLORE_SOURCE_DIR) + "/../shared/testdata/macos-zlib-fork/";
  const std::string original = readFile(testdata + "zlib.expected");
  const std::string fork = readFile(testdata + "real_zlib_rsrc.rsrc");
  ScratchDir dir;
  const std::string path = dir / "words";
  writeFile(path, original);

  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error)) << error.describe();
  std::map<std::string, std::string> attributes = FileSnapshot::attributesOf(path);
  EXPECT_TRUE(attributes[kFork] == fork) << attributes[kFork].size() << " bytes";
  EXPECT_EQ(attributes[kDecmpfs], std::string("\x66\x70\x6d\x63\x04\x00\x00\x00\xf0\x49\x02\x00\x00\x00\x00\x00", 16));
  EXPECT_EQ(attributes[kFlags], std::string("\x20\x00\x00\x00", 4));
  EXPECT_EQ(readFile(path), "");  // the data fork is empty

  ASSERT_TRUE(QVHFSUncompressor::expandInPlacePath(path, &error)) << error.describe();
  EXPECT_TRUE(readFile(path) == original);
  EXPECT_TRUE(FileSnapshot::attributesOf(path).empty());
}

TEST(QVHFSCompressedFileRepresentationTest, IncompressibleDataFailsWith704AndLeavesTheFileAlone) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "noise.bin";
  writeFile(path, randomData(3 * 65536 + 11));
  const FileSnapshot before = FileSnapshot::take(path);
  Error error;
  EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error));
  EXPECT_EQ(error.domain, kHFSErrorDomain);
  EXPECT_EQ(error.code, kHFSErrorNotCompressible);
  EXPECT_EQ(FileSnapshot::take(path), before);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("noise.bin"));
}

// Every file the engine must not rewrite is refused with its own error and
// left exactly as it was.
TEST(QVHFSCompressedFileRepresentationTest, RefusesFilesItMustNotRewrite) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(100000);
  auto expectRefused = [&](const std::string& path, int code, const std::string& message) {
    SCOPED_TRACE(path);
    struct stat st;
    const bool exists = lstat(path.c_str(), &st) == 0;
    const bool regular = exists && S_ISREG(st.st_mode);
    FileSnapshot before;
    if (regular) before = FileSnapshot::take(path);
    Error error;
    EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error));
    EXPECT_EQ(error.domain, kHFSErrorDomain);
    EXPECT_EQ(error.code, code);
    EXPECT_THAT(error.message, HasSubstr(message));
    if (regular) {
      EXPECT_EQ(FileSnapshot::take(path), before);
    }
  };

  const std::string linked = dir / "linked";
  writeFile(linked, data);
  ASSERT_EQ(link(linked.c_str(), (dir / "other-name").c_str()), 0);
  expectRefused(linked, kHFSErrorHardLinks, "File at path " + linked + " has more than one hard link");

  const std::string target = dir / "target";
  writeFile(target, data);
  ASSERT_EQ(symlink(target.c_str(), (dir / "symlink").c_str()), 0);
  expectRefused(dir / "symlink", kHFSErrorNotRegularFile, "is not a regular file");
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  expectRefused(dir / "fifo", kHFSErrorNotRegularFile, "is not a regular file");
  ASSERT_EQ(mkdir((dir / "folder").c_str(), 0700), 0);
  expectRefused(dir / "folder", kHFSErrorNotRegularFile, "is not a regular file");
  expectRefused("/dev/null", kHFSErrorNotRegularFile, "is not a regular file");
  expectRefused(dir / "missing", kHFSErrorCouldNotOpen, "Could not stat source file at");

  const std::string lineFeed = dir / "line\nfeed";
  writeFile(lineFeed, data);
  expectRefused(lineFeed, kHFSErrorLineFeedInPath, "contains a line feed");
  const std::string notUtf8 = dir / "bad\xff\xfe";
  writeFile(notUtf8, data);
  expectRefused(notUtf8, kHFSErrorPathNotUTF8, "is not valid UTF-8");
  expectRefused(dir / std::string(300, 'n'), kHFSErrorPathTooLong, "is too long");

  // Held by a cooperating program's lock.
  int holder = open(target.c_str(), O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  expectRefused(target, kHFSErrorLocked, "File at path " + target + " is locked by other process");
  close(holder);

  // Already compressed; then written into after it was compressed.
  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(target, &error)) << error.describe();
  expectRefused(target, kHFSErrorAlreadyCompressed, "File at path " + target + " already compressed");
  writeFile(target, "appended by a program that knows nothing of compression");
  expectRefused(target, kHFSErrorWrittenAfterCompression, "was written after it was compressed");
}

TEST(QVHFSCompressedFileRepresentationTest, FileChangedBetweenReadingAndSwapIsLeftAlone) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "busy.log";
  writeFile(path, compressibleData(200000));
  std::vector<std::string> lines;
  ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });

  Error error;
  auto representation = QVHFSCompressedFileRepresentation::createFromContentsOfFile(path, &error);
  ASSERT_NE(representation, nullptr) << error.describe();
  int fd = open(path.c_str(), O_WRONLY | O_APPEND);
  ASSERT_EQ(write(fd, "more\n", 5), 5);
  close(fd);
  const FileSnapshot changed = FileSnapshot::take(path);

  EXPECT_FALSE(representation->saveToHFSCompressedFile(path, &error));
  EXPECT_EQ(error.code, kHFSErrorModified);
  EXPECT_THAT(lines, ::testing::Contains("**** File " + path + " modified while compressing, aborting"));
  EXPECT_EQ(FileSnapshot::take(path), changed);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("busy.log"));
}

TEST(QVHFSCompressedFileRepresentationTest, FileOpenForWritingByAnotherProcessIsLeftAloneWithoutAMessage) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "open.db";
  writeFile(path, compressibleData(200000));
  const FileSnapshot before = FileSnapshot::take(path);

  int ready[2], release[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(release), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int fd = open(path.c_str(), O_WRONLY);
    char c = fd >= 0 ? 'y' : 'n';
    if (write(ready[1], &c, 1) != 1) _exit(1);
    if (read(release[0], &c, 1) < 0) _exit(1);
    _exit(0);
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');

  std::vector<std::string> lines;
  {
    ScopedLogCapture capture([&](const std::string& line) { lines.push_back(line); });
    Error error;
    EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error));
    EXPECT_EQ(error.code, kHFSErrorOpenForWriting);
  }
  EXPECT_THAT(lines, ::testing::IsEmpty());
  EXPECT_EQ(FileSnapshot::take(path), before);

  ASSERT_EQ(write(release[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
  // With the writer gone the same file compresses.
  Error error;
  EXPECT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error)) << error.describe();
}

TEST(QVHFSCompressedFileRepresentationTest, SavesToANewPathAndCountsSavedSpaceOnlyWhenItShrank) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string data = compressibleData(300000);
  Error error;
  auto representation = QVHFSCompressedFileRepresentation::createFromData(data.data(), data.size(), &error);
  ASSERT_NE(representation, nullptr) << error.describe();
  int64_t saved = -7, uncompressed = -7;
  const std::string fresh = dir / "fresh";
  ASSERT_TRUE(representation->saveToHFSCompressedFile(fresh, &error, &saved, &uncompressed)) << error.describe();
  EXPECT_EQ(saved, -7);
  EXPECT_EQ(uncompressed, 300000);
  struct stat st;
  ASSERT_EQ(lstat(fresh.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_TRUE(contentOf(fresh) == data);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("fresh"));

  // Over an existing file: it shrinks by at least the bytes it no longer holds.
  const std::string existing = dir / "existing";
  writeFile(existing, data);
  ASSERT_EQ(lstat(existing.c_str(), &st), 0);
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(existing, &error, &saved)) << error.describe();
  EXPECT_GT(saved, 0);
  EXPECT_LE(saved, st.st_blocks * 512 - static_cast<int64_t>(representation->forkSize()));
  EXPECT_EQ(saved % 512, 0);
}

// A symbolic link planted at the copy's name is never followed or replaced;
// a copy of our own left by a crash is.
TEST(QVHFSCompressedFileRepresentationTest, PlantedLinkAtTheCopysNameIsNeverFollowed) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "file";
  const std::string victim = dir / "victim";
  writeFile(path, compressibleData(100000));
  writeFile(victim, "must stay");
  const std::string copyName = SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kCompressedCopy);
  ASSERT_EQ(symlink(victim.c_str(), copyName.c_str()), 0);
  const FileSnapshot before = FileSnapshot::take(path);
  const FileSnapshot victimBefore = FileSnapshot::take(victim);

  Error error;
  EXPECT_FALSE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error));
  EXPECT_EQ(error.code, kHFSErrorSwapFailed);
  EXPECT_EQ(FileSnapshot::take(path), before);
  EXPECT_EQ(FileSnapshot::take(victim), victimBefore);
  char target[256] = {};
  EXPECT_GT(readlink(copyName.c_str(), target, sizeof target - 1), 0);

  unlink(copyName.c_str());
  writeFile(copyName, "a leftover of ours");
  EXPECT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error)) << error.describe();
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("file", "victim"));
}

TEST(QVHFSCompressedFileRepresentationTest, SwapByRenameWhenExchangeIsNotWanted) {
  testing::ScopedRuntimeDir runtime;
  ScratchDir dir;
  const std::string path = dir / "file";
  const std::string data = compressibleData(150000);
  writeFile(path, data);
  giveMetadata(path);
  const FileSnapshot before = FileSnapshot::take(path);
  HFSCompressionOptions options;
  options.useExchange = false;
  options.verify = false;
  Error error;
  ASSERT_TRUE(QVHFSCompressedFileRepresentation::compressInPlacePath(path, &error, nullptr, nullptr, nullptr, options))
      << error.describe();
  EXPECT_EQ(stateOf(path), CompressionState::kCompressed);
  EXPECT_TRUE(contentOf(path) == data);
  EXPECT_EQ(FileSnapshot::take(path).mtimeNs, before.mtimeNs);
  EXPECT_THAT(listFolder(dir.path()), ElementsAre("file"));
}

}  // namespace
}  // namespace zephlore
