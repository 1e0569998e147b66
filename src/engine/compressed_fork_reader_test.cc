#include "engine/compressed_fork_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <functional>
#include <vector>

#include "engine/decmpfs_header.h"
#include "engine/engine_test_support.h"
#include "engine/fork_image_writer.h"
#include "engine/hfs_error_codes.h"

namespace zephlore {
namespace {

using testkit::deterministicText;
using testkit::TempFile;

std::vector<uint8_t> makeFork(const std::vector<uint8_t>& data) {
  TempFile fork;
  EXPECT_TRUE(writeForkImage(Env::system(), data.data(), data.size(), fork.fd(), ForkWriteOptions{}, nullptr, nullptr));
  return fork.contents();
}

uint32_t getLE(const std::vector<uint8_t>& b, size_t at) {
  uint32_t v;
  std::memcpy(&v, &b[at], 4);
  return v;
}
void putLE(std::vector<uint8_t>& b, size_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); }
void putBE(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

std::vector<uint8_t> zlibOf(const std::vector<uint8_t>& data) {
  std::vector<uint8_t> out(compressBound(data.size()));
  uLongf size = out.size();
  EXPECT_EQ(compress2(out.data(), &size, data.data(), data.size(), 5), Z_OK);
  out.resize(size);
  return out;
}

// Replaces block `index`'s stream by `stream`, which must not be longer.
void replaceStream(std::vector<uint8_t>& fork, uint32_t index, const std::vector<uint8_t>& stream) {
  const size_t entry = 0x108 + 8 * index;
  ASSERT_LE(stream.size(), getLE(fork, entry + 4));
  std::memcpy(&fork[0x104 + getLE(fork, entry)], stream.data(), stream.size());
  putLE(fork, entry + 4, static_cast<uint32_t>(stream.size()));
}

TEST(CompressedForkReader, RangeReadsMatchTheContent) {
  const std::vector<uint8_t> data = deterministicText(5 * 65536 + 1234);
  const std::vector<uint8_t> fork = makeFork(data);
  TempFile forkFile(fork);
  Error error;
  auto source = FdForkSource::open(Env::system(), forkFile.fd(), &error);
  ASSERT_NE(source, nullptr);
  auto reader = CompressedForkReader::open(Env::system(), *source, data.size(), &error);
  ASSERT_NE(reader, nullptr) << error.describe();
  EXPECT_EQ(reader->uncompressedSize(), data.size());
  EXPECT_EQ(reader->blockCount(), 6u);
  EXPECT_EQ(reader->forkSize(), fork.size());
  EXPECT_EQ(reader->compressedDataSize(), fork.size() - 0x108 - 8 * 6 - 50);

  struct Range {
    uint64_t offset;
    size_t n;
  };
  // Inside a block, across boundaries, whole blocks (read straight into the
  // caller's buffer), the short last block, the end and past it.
  const Range ranges[] = {{0, 10},          {65530, 12},     {65536, 65536},     {3, 3 * 65536},
                          {100, 65536},     {5 * 65536, 1234}, {5 * 65536 + 1000, 5000}, {0, data.size()},
                          {data.size(), 9}, {data.size() + 5, 9}, {77, 0},           {65536 * 2 + 1, 65535}};
  for (const Range& r : ranges) {
    std::vector<uint8_t> buf(r.n + 1, 0xEE);
    size_t got = 99;
    ASSERT_TRUE(reader->read(r.offset, buf.data(), r.n, &got, &error)) << error.describe();
    const size_t expected = r.offset >= data.size() ? 0 : std::min<size_t>(r.n, data.size() - r.offset);
    ASSERT_EQ(got, expected) << r.offset << "+" << r.n;
    EXPECT_EQ(0, std::memcmp(buf.data(), data.data() + std::min<size_t>(r.offset, data.size()), got));
    EXPECT_EQ(buf[r.n], 0xEE) << "wrote past the request";
  }
  // Whole expansion on more workers than its window of blocks.
  for (int workers : {1, 5}) {
    TempFile out;
    ASSERT_TRUE(reader->expandTo(out.fd(), workers, &error)) << error.describe();
    EXPECT_EQ(out.contents(), data) << workers << " workers";
  }
}

TEST(CompressedForkReader, HostileForksFailCleanly) {
  const std::vector<uint8_t> data = deterministicText(3 * 65536 + 7);
  const std::vector<uint8_t> good = makeFork(data);
  const uint32_t dataLength = 8 + 8 * 4 + static_cast<uint32_t>(good.size() - 0x108 - 32 - 50);

  struct Case {
    const char* name;
    std::function<void(std::vector<uint8_t>&)> damage;
    uint64_t size;     // uncompressed size claimed by the header
    const char* says;  // part of the message
  };
  const std::vector<uint8_t> tooLong = zlibOf(std::vector<uint8_t>(70000, 'z'));
  const std::vector<uint8_t> tooShort = zlibOf(std::vector<uint8_t>(1000, 'z'));
  const std::vector<uint8_t> twenty = zlibOf(std::vector<uint8_t>(20, 'z'));
  const Case cases[] = {
      {"data outside the fork", [](auto& f) { putBE(f, 8, static_cast<uint32_t>(f.size()) - 0x100 + 1); }, data.size(), "resource data"},
      {"data offset inside the header", [](auto& f) { putBE(f, 0, 4); }, data.size(), "resource data"},
      {"map outside the fork", [&](auto& f) { putBE(f, 4, static_cast<uint32_t>(f.size())); }, data.size(), "resource map"},
      {"resource longer than the data", [&](auto& f) { putBE(f, 0x100, dataLength); }, data.size(), "resource length"},
      {"block count off by one", [](auto& f) { putLE(f, 0x104, 5); }, data.size(), "holds 5 blocks"},
      {"huge block count", [](auto& f) { putLE(f, 0x104, 0xFFFFFFFF); }, 0xFFFFFFFFull * 65536, "does not fit"},
      {"block outside the data", [&](auto& f) { putLE(f, 0x108 + 8 * 3, dataLength); }, data.size(), "block 3"},
      {"block over the table", [](auto& f) { putLE(f, 0x108, 8); }, data.size(), "block 0"},
      {"empty block", [](auto& f) { putLE(f, 0x108 + 4, 0); }, data.size(), "impossible size"},
      {"block over 64 KiB and a marker", [](auto& f) { putLE(f, 0x108 + 4, 0x10002); }, data.size(), "impossible size"},
      {"block that does not inflate", [](auto& f) { f[0x108 + 32 + 10] ^= 0x55; }, data.size(), "block 0"},
      {"block inflating past 64 KiB", [&](auto& f) { replaceStream(f, 1, tooLong); }, data.size(), "more than 65536"},
      {"block inflating short", [&](auto& f) { replaceStream(f, 2, tooShort); }, data.size(), "instead of 65536"},
      {"last block too long", [&](auto& f) { replaceStream(f, 3, twenty); }, data.size(), "20 bytes instead of 7"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<uint8_t> fork = good;
    c.damage(fork);
    MemoryForkSource source(fork.data(), fork.size());
    Error error;
    auto reader = CompressedForkReader::open(Env::system(), source, c.size, &error);
    if (reader) {
      // The table passed: the damage must show when the blocks are read.
      std::vector<uint8_t> buf(data.size());
      size_t got = 0;
      EXPECT_FALSE(reader->read(0, buf.data(), buf.size(), &got, &error));
      EXPECT_LT(got, data.size());
      Error expandError;
      TempFile out;
      EXPECT_FALSE(reader->expandTo(out.fd(), 2, &expandError));
      EXPECT_EQ(expandError.code, kHFSErrorCannotUncompress);
    }
    EXPECT_EQ(error.domain, kHFSErrorDomain);
    EXPECT_EQ(error.code, kHFSErrorCannotUncompress);
    EXPECT_NE(error.message.find(c.says), std::string::npos) << error.message;
  }

  // Every truncation of a good fork, and the right fork with the wrong size.
  for (size_t length = 0; length < good.size(); length += (length < 400 ? 1 : 97)) {
    MemoryForkSource source(good.data(), length);
    Error error;
    EXPECT_EQ(CompressedForkReader::open(Env::system(), source, data.size(), &error), nullptr) << length;
    EXPECT_EQ(error.code, kHFSErrorCannotUncompress);
  }
  MemoryForkSource source(good.data(), good.size());
  Error error;
  EXPECT_EQ(CompressedForkReader::open(Env::system(), source, 65536, &error), nullptr);
  auto reader = CompressedForkReader::open(Env::system(), source, data.size() - 1, &error);
  ASSERT_NE(reader, nullptr);
  std::vector<uint8_t> buf(data.size());
  size_t got = 0;
  EXPECT_FALSE(reader->read(0, buf.data(), buf.size(), &got, &error));
  EXPECT_EQ(got, 3u * 65536);
  EXPECT_NE(error.message.find("block 3 inflates to 7 bytes instead of 6"), std::string::npos) << error.message;
}

TEST(CompressedForkReader, SourceReadFailuresPassThrough) {
  const std::vector<uint8_t> data = deterministicText(2 * 65536);
  const std::vector<uint8_t> fork = makeFork(data);
  TempFile file(fork);
  // The descriptor's file shrinks after the source took its size.
  FdForkSource source(Env::system(), file.fd(), fork.size());
  Error error;
  auto reader = CompressedForkReader::open(Env::system(), source, data.size(), &error);
  ASSERT_NE(reader, nullptr);
  ASSERT_EQ(ftruncate(file.fd(), static_cast<off_t>(fork.size() - 100)), 0);
  std::vector<uint8_t> buf(data.size());
  size_t got = 0;
  EXPECT_FALSE(reader->read(65536, buf.data(), 65536, &got, &error));
  EXPECT_EQ(error.code, kHFSErrorCouldNotRead);
  EXPECT_FALSE(FdForkSource::open(Env::system(), -1, &error));
  EXPECT_EQ(error.code, kHFSErrorCouldNotRead);
}

TEST(DecmpfsHeader, AcceptsOnlyWhatWeWrite) {
  const auto good = decmpfsValueForSize(150000);
  uint64_t size = 0;
  Error error;
  ASSERT_TRUE(parseDecmpfsValue(good.data(), good.size(), &size, &error));
  EXPECT_EQ(size, 150000u);

  struct Case {
    std::function<void(std::vector<uint8_t>&)> damage;
    const char* says;
  };
  const Case cases[] = {
      {[](auto& v) { v[0] = 'x'; }, "wrong magic"},
      {[](auto& v) { v[4] = 3; }, "type 3"},
      {[](auto& v) { v.pop_back(); }, "15 bytes"},
      {[](auto& v) { v.push_back(0); }, "17 bytes"},
      {[](auto& v) { v.clear(); }, "0 bytes"},
      {[](auto& v) { v[15] = 0x80; }, "out of range"},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> value(good.begin(), good.end());
    c.damage(value);
    error = {};
    EXPECT_FALSE(parseDecmpfsValue(value.data(), value.size(), &size, &error));
    EXPECT_EQ(error.domain, kHFSErrorDomain);
    EXPECT_EQ(error.code, kHFSErrorNotCompressed);
    EXPECT_NE(error.message.find(c.says), std::string::npos) << error.message;
  }
}

using testkit::deterministicNoise;

// A fork laid out from the format's rules alone, with the blocks' bytes as
// given: what another system may write, not what our writer makes.
std::vector<uint8_t> forkOfStoredBlocks(const std::vector<std::vector<uint8_t>>& blocks) {
  using H = QVHFSCompressionStructsHelper;
  HFSPlusCmpfRsrcHead head = H::createResourceHeader();
  HFSPlusCmpfRsrcBlockHead blockHead = H::createBlocksHeader();
  HFSPlusCmpfRsrcBlockTable table = H::createPerBlockHeadersForBlocks(static_cast<uint32_t>(blocks.size()));
  for (const std::vector<uint8_t>& block : blocks) {
    H::appendBlock(&head, &blockHead, table.get(), static_cast<uint32_t>(block.size()));
  }
  H::finishBlocks(head, &blockHead);
  std::vector<uint8_t> fork(head.mapOffset + head.mapLength, 0);
  for (size_t i = 0; i < blocks.size(); ++i) {
    std::memcpy(&fork[0x104 + table[i].offset], blocks[i].data(), blocks[i].size());
    H::flipRsrcBlock(&table[i]);
    std::memcpy(&fork[0x108 + 8 * i], &table[i], 8);
  }
  HFSPlusCmpfEnd end = H::createFooter();
  H::flipHFSPlusCmpfEnd(&end);
  std::memcpy(&fork[head.mapOffset], &end, sizeof end);
  H::flipRsrcBlockHead(&blockHead);
  std::memcpy(&fork[0x100], &blockHead, sizeof blockHead);
  H::flipRsrcHead(&head);
  std::memcpy(&fork[0], &head, sizeof head);
  return fork;
}

std::vector<uint8_t> stored(const std::vector<uint8_t>& data, size_t from, size_t n) {
  std::vector<uint8_t> block{0xFF};
  block.insert(block.end(), data.begin() + static_cast<ptrdiff_t>(from), data.begin() + static_cast<ptrdiff_t>(from + n));
  return block;
}

std::vector<uint8_t> deflated(const std::vector<uint8_t>& data, size_t from, size_t n) {
  return zlibOf(std::vector<uint8_t>(data.begin() + static_cast<ptrdiff_t>(from),
                                     data.begin() + static_cast<ptrdiff_t>(from + n)));
}

TEST(CompressedForkReader, BlocksStoredAsTheyAreBehindTheirMarkerAreRead) {
  // Text, then noise that does not shrink (stored whole), then a short
  // stored last block.
  std::vector<uint8_t> data = deterministicText(65536);
  const std::vector<uint8_t> noise = deterministicNoise(65536 + 100, 3);
  data.insert(data.end(), noise.begin(), noise.end());
  const std::vector<uint8_t> fork = forkOfStoredBlocks(
      {deflated(data, 0, 65536), stored(data, 65536, 65536), stored(data, 2 * 65536, 100)});
  MemoryForkSource source(fork.data(), fork.size());
  Error error;
  auto reader = CompressedForkReader::open(Env::system(), source, data.size(), &error);
  ASSERT_NE(reader, nullptr) << error.describe();
  for (int workers : {1, 3}) {
    TempFile out;
    ASSERT_TRUE(reader->expandTo(out.fd(), workers, &error)) << error.describe();
    EXPECT_EQ(out.contents(), data);
  }
  std::vector<uint8_t> middle(70000);
  size_t got = 0;
  ASSERT_TRUE(reader->read(60000, middle.data(), middle.size(), &got, &error)) << error.describe();
  ASSERT_EQ(got, middle.size());
  EXPECT_EQ(0, std::memcmp(middle.data(), data.data() + 60000, middle.size()));

  // A stored block must hold exactly its block's bytes.
  const std::vector<uint8_t> shortBlock =
      forkOfStoredBlocks({deflated(data, 0, 65536), stored(data, 65536, 65535), stored(data, 2 * 65536, 100)});
  MemoryForkSource shortSource(shortBlock.data(), shortBlock.size());
  auto damaged = CompressedForkReader::open(Env::system(), shortSource, data.size(), &error);
  ASSERT_NE(damaged, nullptr) << error.describe();
  TempFile out;
  EXPECT_FALSE(damaged->expandTo(out.fd(), 1, &error));
  EXPECT_EQ(error.code, kHFSErrorCannotUncompress);
}

TEST(CompressedForkReader, ZeroBlocksBecomeHoles) {
  std::vector<uint8_t> data(5 * 65536 + 10, 0);
  const std::vector<uint8_t> text = deterministicText(65536);
  std::copy(text.begin(), text.end(), data.begin() + 2 * 65536);
  const std::vector<uint8_t> fork = makeFork(data);
  MemoryForkSource source(fork.data(), fork.size());
  Error error;
  auto reader = CompressedForkReader::open(Env::system(), source, data.size(), &error);
  ASSERT_NE(reader, nullptr) << error.describe();
  TempFile out;
  ASSERT_TRUE(reader->expandTo(out.fd(), 2, &error)) << error.describe();
  EXPECT_EQ(out.contents(), data);
  struct stat st;
  ASSERT_EQ(fstat(out.fd(), &st), 0);
  EXPECT_LE(st.st_blocks * 512, 2 * 65536) << "the zero blocks were written out";
}

}  // namespace
}  // namespace zephlore
