#include "engine/block_codec.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <vector>

#include "engine/engine_test_support.h"

namespace zephlore {
namespace {

using testkit::deterministicNoise;
using testkit::deterministicText;

// The reused stream must give exactly compress2's bytes, block after block,
// whatever came before it.
TEST(BlockCodec, DeflaterMatchesCompress2AtLevel5) {
  std::vector<std::vector<uint8_t>> inputs = {
      {},
      {'x'},
      deterministicText(4095),
      deterministicText(65536),
      deterministicNoise(30000, 3),
      std::vector<uint8_t>(65536, 0),
      deterministicText(65535),
  };
  std::vector<uint8_t> mixed = deterministicText(40000);
  const std::vector<uint8_t> noise = deterministicNoise(25536, 9);
  mixed.insert(mixed.end(), noise.begin(), noise.end());
  inputs.push_back(mixed);

  BlockDeflater deflater;
  ASSERT_TRUE(deflater.valid());
  std::vector<uint8_t> ours(kMaxCompressedBlockSize);
  for (const auto& input : inputs) {
    std::vector<uint8_t> reference(compressBound(input.size()));
    uLongf referenceSize = reference.size();
    ASSERT_EQ(compress2(reference.data(), &referenceSize, input.data(), input.size(), 5), Z_OK);
    reference.resize(referenceSize);
    uint32_t size = 0;
    ASSERT_EQ(deflater.compress(input.data(), input.size(), ours.data(), &size), BlockDeflater::Result::kOk);
    EXPECT_EQ(std::vector<uint8_t>(ours.begin(), ours.begin() + size), reference) << "input of " << input.size();
  }
}

TEST(BlockCodec, FullBlockOfNoiseDoesNotFitLikeCompress2) {
  const std::vector<uint8_t> noise = deterministicNoise(65536, 1);
  std::vector<uint8_t> out(kMaxCompressedBlockSize);
  uLongf outSize = out.size();
  EXPECT_EQ(compress2(out.data(), &outSize, noise.data(), noise.size(), 5), Z_BUF_ERROR);
  BlockDeflater deflater;
  uint32_t size = 0;
  EXPECT_EQ(deflater.compress(noise.data(), noise.size(), out.data(), &size), BlockDeflater::Result::kDoesNotFit);
  // Around the edge (streams of 65530 to 65542 bytes): fits exactly when
  // compress2 fits, with the same bytes.
  int fits = 0, doesNot = 0;
  for (size_t n = 65450; n <= 65536; ++n) {
    SCOPED_TRACE(n);
    outSize = out.size();
    const int rc = compress2(out.data(), &outSize, noise.data(), n, 5);
    const std::vector<uint8_t> reference(out.begin(), out.begin() + static_cast<long>(outSize));
    const BlockDeflater::Result ours = deflater.compress(noise.data(), n, out.data(), &size);
    if (rc == Z_OK) {
      ++fits;
      ASSERT_EQ(ours, BlockDeflater::Result::kOk);
      EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + size), reference);
    } else {
      ++doesNot;
      EXPECT_EQ(ours, BlockDeflater::Result::kDoesNotFit);
    }
  }
  EXPECT_GT(fits, 0);
  EXPECT_GT(doesNot, 0);
  // The stream is usable again after a block that did not fit.
  const std::vector<uint8_t> text = deterministicText(1000);
  EXPECT_EQ(deflater.compress(text.data(), text.size(), out.data(), &size), BlockDeflater::Result::kOk);
}

TEST(BlockCodec, InflaterChecksLengthAndIntegrity) {
  const std::vector<uint8_t> text = deterministicText(5000);
  std::vector<uint8_t> stream(compressBound(text.size()));
  uLongf streamSize = stream.size();
  ASSERT_EQ(compress2(stream.data(), &streamSize, text.data(), text.size(), 5), Z_OK);
  stream.resize(streamSize);

  BlockInflater inflater;
  std::vector<uint8_t> out(65536);
  std::string why;
  ASSERT_EQ(inflater.inflate(stream.data(), stream.size(), out.data(), text.size(), &why), BlockInflater::Result::kOk);
  EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 5000), text);

  EXPECT_EQ(inflater.inflate(stream.data(), stream.size(), out.data(), 4999, &why), BlockInflater::Result::kWrongSize);
  EXPECT_EQ(inflater.inflate(stream.data(), stream.size() - 5, out.data(), 5000, &why), BlockInflater::Result::kCorrupt);
  EXPECT_NE(why.find("truncated"), std::string::npos) << why;
  std::vector<uint8_t> damaged = stream;
  damaged[damaged.size() - 1] ^= 0xFF;  // Adler-32 trailer
  EXPECT_EQ(inflater.inflate(damaged.data(), damaged.size(), out.data(), 5000, &why), BlockInflater::Result::kCorrupt);
  EXPECT_EQ(inflater.inflate(nullptr, 0, out.data(), 5000, &why), BlockInflater::Result::kCorrupt);

  // A stream of more than 64 KiB never writes past the 64 KiB buffer.
  const std::vector<uint8_t> big(70000, 'a');
  std::vector<uint8_t> bigStream(compressBound(big.size()));
  uLongf bigSize = bigStream.size();
  ASSERT_EQ(compress2(bigStream.data(), &bigSize, big.data(), big.size(), 5), Z_OK);
  EXPECT_EQ(inflater.inflate(bigStream.data(), bigSize, out.data(), 65536, &why), BlockInflater::Result::kTooLong);

  // Still good after all those failures.
  EXPECT_EQ(inflater.inflate(stream.data(), stream.size(), out.data(), text.size(), &why), BlockInflater::Result::kOk);
}

}  // namespace
}  // namespace zephlore
