// One zlib stream per 64 KiB block, with the z_stream kept and reset between
// blocks so that a long file costs no allocation per block.
#pragma once

#include <libdeflate.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace zephlore {

inline constexpr int kBlockCompressionLevel = 5;
// The largest zlib stream a block may take: the block's own size.
inline constexpr uint32_t kMaxCompressedBlockSize = 0x10000;
// Forks written elsewhere may keep a block that does not shrink as it is,
// behind this first byte; such a block takes one byte more than its data.
inline constexpr uint8_t kStoredBlockMarker = 0xFF;
inline constexpr uint32_t kMaxStoredBlockSize = kMaxCompressedBlockSize + 1;

// Produces exactly the bytes of compress2(level 5): the same deflate
// parameters (window 15, memory level 8, default strategy), finished in one
// call. Not thread-safe: one per thread.
class BlockDeflater {
 public:
  enum class Result { kOk, kDoesNotFit, kFailed };

  BlockDeflater();
  ~BlockDeflater();
  BlockDeflater(const BlockDeflater&) = delete;
  BlockDeflater& operator=(const BlockDeflater&) = delete;

  bool valid() const { return valid_; }
  // Compresses n bytes (at most one block) into out, which holds
  // kMaxCompressedBlockSize bytes. kDoesNotFit: the stream would be longer.
  Result compress(const uint8_t* in, size_t n, uint8_t* out, uint32_t* outSize);

 private:
  z_stream stream_{};
  bool valid_ = false;
};

// Inflates one block's zlib stream and checks that it gives exactly the
// expected number of bytes. Not thread-safe: one per thread.
class BlockInflater {
 public:
  enum class Result { kOk, kCorrupt, kTooLong, kWrongSize, kFailed };

  BlockInflater();
  ~BlockInflater();
  BlockInflater(const BlockInflater&) = delete;
  BlockInflater& operator=(const BlockInflater&) = delete;

  bool valid() const { return valid_; }
  // Inflates the n bytes at `in` into out, which holds 64 KiB (expected is at
  // most 64 KiB). Bytes after the end of the zlib stream are ignored. On
  // failure *why says what was wrong.
  Result inflate(const uint8_t* in, size_t n, uint8_t* out, size_t expected, std::string* why);

 private:
  libdeflate_decompressor* decompressor_;
  bool valid_ = false;
};

}  // namespace zephlore
