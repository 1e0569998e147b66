#include "platform/attribute_fork.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>

#include "platform/attribute_names.h"
#include "platform/fault_env.h"
#include "testing/files.h"
#include "testing/scratch_dir.h"

namespace zephlore {
namespace {

using testkit::ScratchDir;
using testkit::writeFile;

std::vector<uint8_t> noise(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> out(n);
  for (uint8_t& b : out) b = static_cast<uint8_t>(rng());
  return out;
}

std::vector<std::string> sortedNames(const FileRef& file) {
  auto names = Env::system().listxattr(file);
  EXPECT_TRUE(names);
  std::sort(names->begin(), names->end());
  return *names;
}

// Reads the whole fork in odd-sized steps, so that reads straddle pieces.
std::vector<uint8_t> readAll(AttributeForkReader& reader) {
  std::vector<uint8_t> out(reader.size());
  for (uint64_t offset = 0; offset < out.size();) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(7777, out.size() - offset));
    Error error;
    EXPECT_TRUE(reader.readAt(offset, out.data() + offset, n, &error)) << error.message;
    offset += n;
  }
  return out;
}

// A fresh empty file on tmpfs for each test.
class AttributeForkTest : public ::testing::Test {
 protected:
  ScratchDir dir;
  const std::string path = dir / "f";
  const FileRef file = (writeFile(path, ""), FileRef::atPath(path));
};
using AttributeForkWriterTest = AttributeForkTest;

TEST_F(AttributeForkTest, RoundTripsAroundPieceBoundaries) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{65535}, size_t{65536}, size_t{65537},
                      size_t{3 * 65536 + 7}}) {
    SCOPED_TRACE(size);
    const std::vector<uint8_t> fork = noise(size, static_cast<uint32_t>(size));
    Error error;
    ASSERT_TRUE(AttributeFork::write(Env::system(), file, fork.data(), fork.size(), &error)) << error.message;
    EXPECT_TRUE(AttributeFork::isPresent(Env::system(), file));

    auto reader = AttributeForkReader::open(Env::system(), file, &error);
    ASSERT_TRUE(reader) << error.message;
    EXPECT_EQ(reader->size(), size);
    EXPECT_EQ(reader->pieceCount(), AttributeFork::piecesFor(size, 65536));
    EXPECT_EQ(readAll(*reader), fork);
    uint8_t byte;
    EXPECT_FALSE(reader->readAt(size, &byte, 1, &error));
    EXPECT_EQ(error.code, EINVAL);
    EXPECT_TRUE(reader->readAt(size, &byte, 0, &error));
  }
  EXPECT_EQ(sortedNames(file),
            (std::vector<std::string>{"com.apple.ResourceFork", "com.apple.ResourceFork.1",
                                      "com.apple.ResourceFork.2", "com.apple.ResourceFork.3"}));

  // From a descriptor, as the compressor hands over its image file.
  const std::vector<uint8_t> image = noise(2 * 65536 + 100, 9);
  writeFile(dir / "image", std::string(image.begin(), image.end()));
  UniqueFd source(::open((dir / "image").c_str(), O_RDONLY));
  UniqueFd target(::open(path.c_str(), O_RDONLY));
  Error error;
  ASSERT_TRUE(AttributeFork::writeFromFd(Env::system(), FileRef::descriptor(target.get()), source.get(),
                                         image.size(), &error))
      << error.message;
  auto reader = AttributeForkReader::open(Env::system(), FileRef::descriptor(target.get()), &error);
  ASSERT_TRUE(reader);
  EXPECT_EQ(readAll(*reader), image);
}

TEST_F(AttributeForkTest, RewriteAndRemoveLeaveNoStalePiece) {
  Env& env = Env::system();
  const std::vector<uint8_t> big = noise(3 * 65536 + 7, 1);
  Error error;
  ASSERT_TRUE(AttributeFork::write(Env::system(), file, big.data(), big.size(), &error));
  // A piece far beyond the fork, as an interrupted older write could leave.
  ASSERT_EQ(env.setxattr(file, "com.apple.ResourceFork.9", "x", 1, 0), 0);
  ASSERT_EQ(env.setxattr(file, "com.apple.ResourceFork.09", "not ours", 8, 0), 0);
  ASSERT_EQ(env.setxattr(file, "other", "kept", 4, 0), 0);

  ASSERT_TRUE(AttributeFork::write(Env::system(), file, "tiny", 4, &error)) << error.message;
  EXPECT_EQ(sortedNames(file), (std::vector<std::string>{"com.apple.ResourceFork",
                                                         "com.apple.ResourceFork.09", "other"}));
  auto reader = AttributeForkReader::open(Env::system(), file, &error);
  ASSERT_TRUE(reader);
  EXPECT_EQ(readAll(*reader), (std::vector<uint8_t>{'t', 'i', 'n', 'y'}));

  ASSERT_TRUE(AttributeFork::write(Env::system(), file, big.data(), big.size(), &error));
  ASSERT_TRUE(AttributeFork::remove(Env::system(), file, &error)) << error.message;
  EXPECT_FALSE(AttributeFork::isPresent(Env::system(), file));
  EXPECT_EQ(sortedNames(file), (std::vector<std::string>{"com.apple.ResourceFork.09", "other"}));
  EXPECT_TRUE(AttributeFork::remove(Env::system(), file, &error));  // nothing left to remove is no failure
  EXPECT_FALSE(AttributeForkReader::open(Env::system(), file, &error));
  EXPECT_EQ(error.code, ENODATA);

  EXPECT_EQ(AttributeFork::pieceIndex("com.apple.ResourceFork"), 0u);
  EXPECT_EQ(AttributeFork::pieceIndex("com.apple.ResourceFork.12"), 12u);
  EXPECT_FALSE(AttributeFork::pieceIndex("com.apple.ResourceFork."));
  EXPECT_FALSE(AttributeFork::pieceIndex("com.apple.ResourceFork.1x"));
  EXPECT_FALSE(AttributeFork::pieceIndex("com.apple.ResourceForks"));
}

TEST_F(AttributeForkTest, AForkTooLargeForTheNameListIsRefusedBeforeAnythingChanges) {
  Error error;
  ASSERT_TRUE(AttributeFork::write(Env::system(), file, "old fork", 8, &error));

  // About 2200 names of 30 bytes pass the 64 KiB list: a sparse source of
  // that many 64 KiB pieces costs no memory, and is never read.
  const uint64_t size = 2300ull * 65536;
  const std::string image = dir / "image";
  writeFile(image, "");
  ASSERT_EQ(truncate(image.c_str(), static_cast<off_t>(size)), 0);
  UniqueFd source(::open(image.c_str(), O_RDONLY));
  EXPECT_FALSE(AttributeFork::writeFromFd(Env::system(), file, source.get(), size, &error));
  EXPECT_EQ(error.code, EFBIG);
  EXPECT_NE(error.message.find("attribute list"), std::string::npos) << error.message;

  EXPECT_EQ(sortedNames(file), std::vector<std::string>{"com.apple.ResourceFork"});
  auto reader = AttributeForkReader::open(Env::system(), file, &error);
  ASSERT_TRUE(reader);
  EXPECT_EQ(readAll(*reader), (std::vector<uint8_t>{'o', 'l', 'd', ' ', 'f', 'o', 'r', 'k'}));
}

TEST_F(AttributeForkTest, AFailedWriteLeavesNoPieceBehind) {
  const std::vector<uint8_t> fork = noise(3 * 65536 + 7, 2);
  Error error;
  ASSERT_TRUE(AttributeFork::write(Env::system(), file, fork.data(), fork.size(), &error));

  // The volume filling up on the third piece cannot be made to happen on
  // demand on tmpfs: injected.
  FaultInjectingEnv faults;
  faults.inject({.op = "setxattr", .error = ENOSPC, .nth = 3, .match = "ResourceFork"});
  EXPECT_FALSE(AttributeFork::write(faults, file, fork.data(), fork.size(), &error));
  EXPECT_EQ(error.code, ENOSPC);
  EXPECT_NE(error.message.find("piece 2"), std::string::npos) << error.message;
  EXPECT_EQ(faults.fired(), 1);
  EXPECT_FALSE(AttributeFork::isPresent(faults, file));
  EXPECT_TRUE(sortedNames(file).empty());

  // A source shorter than promised.
  writeFile(dir / "short", "only this");
  UniqueFd source(::open((dir / "short").c_str(), O_RDONLY));
  EXPECT_FALSE(AttributeFork::writeFromFd(faults, file, source.get(), 70000, &error));
  EXPECT_EQ(error.code, EIO);
  EXPECT_TRUE(sortedNames(file).empty());
}

// The way the fork writer streams: the middle first in odd-sized runs, the
// end, then the front; pieces are stored as soon as they are whole.
TEST_F(AttributeForkWriterTest, StoresPiecesAsTheyCompleteInAnyOrder) {
  ASSERT_TRUE(AttributeFork::write(Env::system(), file, "old fork", 8, nullptr));
  const std::vector<uint8_t> fork = noise(4 * 65536 + 300, 5);
  Error error;
  auto writer = AttributeForkWriter::open(Env::system(), file, true, &error);
  ASSERT_TRUE(writer) << error.message;
  const size_t front = 70000;
  for (size_t offset = front; offset < 3 * 65536;) {
    const size_t n = std::min<size_t>(9999, 3 * 65536 - offset);
    ASSERT_TRUE(writer->write(offset, fork.data() + offset, n, &error)) << error.message;
    offset += n;
  }
  // Piece 2 is whole; the old fork went before it was stored.
  EXPECT_EQ(sortedNames(file), std::vector<std::string>{"com.apple.ResourceFork.2"});
  ASSERT_TRUE(writer->write(3 * 65536, fork.data() + 3 * 65536, fork.size() - 3 * 65536, &error));
  EXPECT_FALSE(writer->write(3 * 65536, fork.data(), 10, &error));  // a whole piece written again
  EXPECT_EQ(error.code, EINVAL);
  EXPECT_TRUE(sortedNames(file).empty());  // and a failure takes every piece away

  writer = AttributeForkWriter::open(Env::system(), file, true, &error);
  ASSERT_TRUE(writer);
  ASSERT_TRUE(writer->write(front, fork.data() + front, fork.size() - front, &error));
  // Bytes missing at the front.
  EXPECT_FALSE(AttributeForkWriter::open(Env::system(), file, true, &error)->finish(fork.size(), &error));
  ASSERT_TRUE(writer->write(0, fork.data(), front, &error));
  ASSERT_TRUE(writer->finish(fork.size(), &error)) << error.message;
  writer.reset();
  auto reader = AttributeForkReader::open(Env::system(), file, &error);
  ASSERT_TRUE(reader);
  EXPECT_EQ(readAll(*reader), fork);

  // A writer dropped before finishing takes its pieces away; one that would
  // need more pieces than the name list holds fails on the first of them.
  writer = AttributeForkWriter::open(Env::system(), file, false, &error);
  ASSERT_TRUE(writer->write(0, fork.data(), 2 * 65536, &error));
  writer.reset();
  EXPECT_FALSE(AttributeFork::isPresent(Env::system(), file));
  writer = AttributeForkWriter::open(Env::system(), file, false, &error);
  EXPECT_FALSE(writer->write(2300ull * 65536, fork.data(), 65536, &error));
  EXPECT_EQ(error.code, EFBIG);
  // The count, from the names themselves ("user." + name + NUL each).
  for (uint64_t other : {0u, 1000u, 40000u}) {
    uint64_t listed = other, pieces = 0;
    while (listed + 5 + AttributeFork::pieceName(pieces).size() + 1 <= 65536) {
      listed += 5 + AttributeFork::pieceName(pieces++).size() + 1;
    }
    EXPECT_EQ(AttributeFork::mostPieces(other), pieces) << other;
  }
}

TEST_F(AttributeForkTest, ReadingStopsAtAGapAndNoticesAPieceThatChanged) {
  Env& env = Env::system();
  const std::vector<uint8_t> fork = noise(3 * 65536, 3);
  Error error;
  ASSERT_TRUE(AttributeFork::write(Env::system(), file, fork.data(), fork.size(), &error));
  ASSERT_EQ(env.removexattr(file, "com.apple.ResourceFork.1"), 0);
  auto reader = AttributeForkReader::open(Env::system(), file, &error);
  ASSERT_TRUE(reader);
  EXPECT_EQ(reader->size(), 65536u);

  ASSERT_TRUE(AttributeFork::write(Env::system(), file, fork.data(), fork.size(), &error));
  reader = AttributeForkReader::open(Env::system(), file, &error);
  ASSERT_TRUE(reader);
  ASSERT_EQ(env.setxattr(file, "com.apple.ResourceFork.2", "short", 5, 0), 0);
  std::vector<uint8_t> buf(100);
  EXPECT_TRUE(reader->readAt(0, buf.data(), buf.size(), &error));
  EXPECT_FALSE(reader->readAt(2 * 65536 + 10, buf.data(), buf.size(), &error));
  EXPECT_NE(error.message.find("changed"), std::string::npos) << error.message;
}

}  // namespace
}  // namespace zephlore
