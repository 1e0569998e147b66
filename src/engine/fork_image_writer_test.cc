#include "engine/fork_image_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "engine/compressed_fork_reader.h"
#include "engine/decmpfs_header.h"
#include "engine/engine_test_support.h"
#include "engine/hfs_compression_structs_helper.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"

namespace zephlore {
namespace {

using testkit::deterministicNoise;
using testkit::deterministicText;
using testkit::sha256Hex;
using testkit::TempFile;
using testkit::toHex;

struct Golden {
  const char* kind;
  size_t size;
  uint64_t forkSize;
  const char* forkSha256;
  const char* decmpfsHex;
};

// From testdata/make_golden.py, which builds the forks with Python's zlib.
const Golden kGolden[] = {
    {"text", 0, 314, "419c7ad4b4b6fed1407975cd90d035f852879c415dac0c25f89bf2e94c8203e2", "66706d63040000000000000000000000"},
    {"text", 1, 331, "91865a42ecbdb05eb03b9ab571ca5ce17108aa92e54d835d7a14be327970359d", "66706d63040000000100000000000000"},
    {"text", 4095, 1473, "4dd4381b1426246f72727def3d9206a84a2c905d00eadd8ee0e7e6bc8a368417", "66706d6304000000ff0f000000000000"},
    {"text", 4096, 1473, "924d58fdd4f16a41d996099dc4448d2816ecd2e441db5973300145c3d969ed37", "66706d63040000000010000000000000"},
    {"text", 65535, 16021, "1c9f0476b092ebdd514e878add13e711a9891219e9e94ae2649720bf324ba7ec", "66706d6304000000ffff000000000000"},
    {"text", 65536, 16021, "18fdb95981f8b069f03e657393965c6f74aa9b612ea953aade665a13289cfe5e", "66706d63040000000000010000000000"},
    {"text", 65537, 16038, "31dcdd835f6188d43009c6142b5ec61d277576efac5fe68edd21b12fd0fd9f17", "66706d63040000000100010000000000"},
    {"text", 196615, 47004, "ddc37b3683f327821b712e430b287e1bc1e326e5caed7e0441b42f4f353df0fe", "66706d63040000000700030000000000"},
    {"text", 10485760, 2331672, "e076977f4054c76ac8cf144a65597dee28f02f8c238df99bff88877edc5ad566", "66706d63040000000000a00000000000"},
    {"noise", 60000, 60348, "82546259d5ca7846c1736a105a7d2a168d5c9be383ca72fa3c4611940b62559b", "66706d630400000060ea000000000000"},
    {"mixed", 161072, 61505, "996101ed2814a45dfa46f3d448029b3b58dd876d47d55c6290b5f5d10ce25430", "66706d63040000003075020000000000"},
};

std::vector<uint8_t> goldenInput(const Golden& g) {
  const std::string kind = g.kind;
  if (kind == "text") return deterministicText(g.size);
  if (kind == "noise") return deterministicNoise(g.size, 7);
  std::vector<uint8_t> data = deterministicText(131072);
  const std::vector<uint8_t> noise = deterministicNoise(30000, 7);
  data.insert(data.end(), noise.begin(), noise.end());
  return data;
}

std::vector<uint8_t> forkOf(const std::vector<uint8_t>& data, int workers, ForkWriteResult* result = nullptr) {
  TempFile fork;
  Error error;
  ForkWriteOptions options;
  options.workers = workers;
  EXPECT_TRUE(writeForkImage(Env::system(), data.data(), data.size(), fork.fd(), options, result, &error)) << error.describe();
  return fork.contents();
}

std::vector<uint8_t> expandAll(const std::vector<uint8_t>& fork, uint64_t size, int workers) {
  MemoryForkSource source(fork.data(), fork.size());
  Error error;
  auto reader = CompressedForkReader::open(Env::system(), source, size, &error);
  EXPECT_NE(reader, nullptr) << error.describe();
  if (!reader) return {};
  TempFile out;
  EXPECT_TRUE(reader->expandTo(out.fd(), workers, &error)) << error.describe();
  return out.contents();
}

// The real fork another system wrote is matched byte for byte through the
// whole path in hfs_compressed_file_representation_test.
TEST(ForkImageWriter, MatchesIndependentlyBuiltForks) {
  for (const Golden& g : kGolden) {
    SCOPED_TRACE(std::string(g.kind) + " " + std::to_string(g.size));
    const std::vector<uint8_t> data = goldenInput(g);
    ForkWriteResult result;
    const std::vector<uint8_t> fork = forkOf(data, 1, &result);
    EXPECT_EQ(fork.size(), g.forkSize);
    EXPECT_EQ(sha256Hex(fork), g.forkSha256);
    EXPECT_EQ(result.uncompressedSize, g.size);
    EXPECT_EQ(result.forkSize, g.forkSize);
    EXPECT_EQ(result.blockCount, (g.size + 65535) / 65536);
    EXPECT_EQ(result.shrank, g.forkSize < g.size);
    const auto header = decmpfsValueForSize(g.size);
    EXPECT_EQ(toHex(header.data(), header.size()), g.decmpfsHex);

    // The same bytes from a descriptor on several workers, and back again.
    TempFile source(data);
    TempFile fdFork;
    ForkWriteOptions options;
    options.workers = 3;
    Error error;
    ASSERT_TRUE(writeForkImage(Env::system(), source.fd(), data.size(), fdFork.fd(), options, nullptr, &error)) << error.describe();
    EXPECT_EQ(sha256Hex(fdFork.contents()), g.forkSha256);
    EXPECT_EQ(expandAll(fork, g.size, 2), data);
  }
  // The edges the forks cannot reach: truncation toward zero, no overflow at the top.
  using H = QVHFSCompressionStructsHelper;
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(-1), 0u);
  EXPECT_EQ(H::blocksRequiredForUncompressedSize(INT64_MAX), (uint64_t(INT64_MAX) >> 16) + 1);
  EXPECT_EQ(H::createPerBlockHeadersForBlocks(0), nullptr);
}

TEST(ForkImageWriter, ParallelOutputIsIdenticalAroundBlockBoundaries) {
  const std::vector<uint8_t> text = deterministicText(14 * 65536);
  for (size_t size : {65535, 65537, 2 * 65536, 7 * 65536 - 1, 13 * 65536 + 5}) {
    const std::vector<uint8_t> data(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
    const std::vector<uint8_t> single = forkOf(data, 1);
    for (int workers : {2, 3, 8}) {
      EXPECT_EQ(forkOf(data, workers), single) << size << " bytes on " << workers << " workers";
    }
    ForkWriteOptions unverified;
    unverified.verify = false;
    TempFile fork;
    ASSERT_TRUE(writeForkImage(Env::system(), data.data(), data.size(), fork.fd(), unverified, nullptr, nullptr));
    EXPECT_EQ(fork.contents(), single);
  }
}

// Each failure says which it was; a rewrite over a longer image leaves no tail.
TEST(ForkImageWriter, FailuresAreNamedAndARewriteTruncatesTheImage) {
  std::vector<uint8_t> data = deterministicText(5 * 65536 + 100);
  TempFile source(data);
  const std::vector<uint8_t> noise = deterministicNoise(65536, 5);
  std::vector<uint8_t> noisy = data;
  std::copy(noise.begin(), noise.end(), noisy.begin() + 65536);  // block 1
  for (int workers : {1, 3}) {
    SCOPED_TRACE(workers);
    ForkWriteOptions options;
    options.workers = workers;
    TempFile fork;
    Error error;
    EXPECT_FALSE(writeForkImage(Env::system(), noisy.data(), noisy.size(), fork.fd(), options, nullptr, &error));
    EXPECT_EQ(error.domain, kHFSErrorDomain);
    EXPECT_EQ(error.code, kHFSErrorNotCompressible);
    EXPECT_NE(error.message.find("block 1 "), std::string::npos) << error.message;
    // Shorter than promised.
    EXPECT_FALSE(writeForkImage(Env::system(), source.fd(), data.size() + 70000, fork.fd(), options, nullptr, &error));
    EXPECT_EQ(error.code, kHFSErrorCouldNotRead);
    EXPECT_NE(error.message.find("changed while being read"), std::string::npos) << error.message;
    // Longer than promised.
    error = {};
    EXPECT_FALSE(writeForkImage(Env::system(), source.fd(), data.size() - 1, fork.fd(), options, nullptr, &error));
    EXPECT_EQ(error.code, kHFSErrorCouldNotRead);
    EXPECT_NE(error.message.find("grew"), std::string::npos) << error.message;
  }
  // An image descriptor that cannot be written; an unreadable source.
  const int readOnly = open(source.path().c_str(), O_RDONLY);
  ASSERT_GE(readOnly, 0);
  Error error;
  EXPECT_FALSE(writeForkImage(Env::system(), data.data(), data.size(), readOnly, ForkWriteOptions{}, nullptr, &error));
  EXPECT_EQ(error.code, kHFSErrorCouldNotWrite);
  EXPECT_NE(error.message.find("Could not write"), std::string::npos) << error.message;
  close(readOnly);
  TempFile fork(std::vector<uint8_t>(100000, 0xAB));
  error = {};
  EXPECT_FALSE(writeForkImage(Env::system(), -1, 10, fork.fd(), ForkWriteOptions{}, nullptr, &error));
  EXPECT_EQ(error.code, kHFSErrorCouldNotRead);

  data.resize(1000);
  ForkWriteResult result;
  ASSERT_TRUE(writeForkImage(Env::system(), data.data(), data.size(), fork.fd(), ForkWriteOptions{}, &result, nullptr));
  EXPECT_EQ(fork.contents(), forkOf(data, 1));
  EXPECT_EQ(fork.contents().size(), result.forkSize);
}

}  // namespace
}  // namespace zephlore
