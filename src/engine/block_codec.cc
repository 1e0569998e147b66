#include "engine/block_codec.h"

#include "engine/hfs_compression_structs_helper.h"

namespace zephlore {

// zlib makes the deflate data alone (a raw stream); the two-byte zlib header
// and the Adler-32 trailer are added here. The bytes are exactly those of
// compress2, whose deflate data does not depend on the wrapping, but the
// checksum comes from libdeflate's vectorised Adler-32 instead of zlib's
// plain loop, a few percent of the whole compression time.
namespace {
// CMF: deflate with a 32 KiB window; FLG: "fast" level (2..5), no
// dictionary, check bits making the pair a multiple of 31.
constexpr uint8_t kZlibHeader[2] = {0x78, 0x5E};
constexpr uint32_t kZlibWrapping = sizeof kZlibHeader + 4;
}  // namespace

BlockDeflater::BlockDeflater() {
  // compress2 calls deflateInit(level), which is this but for the wrapping.
  valid_ = deflateInit2(&stream_, kBlockCompressionLevel, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK;
}

BlockDeflater::~BlockDeflater() {
  if (valid_) deflateEnd(&stream_);
}

BlockDeflater::Result BlockDeflater::compress(const uint8_t* in, size_t n, uint8_t* out, uint32_t* outSize) {
  if (!valid_ || n > kHFSCompressionBlockSize || deflateReset(&stream_) != Z_OK) return Result::kFailed;
  static const uint8_t kNoInput = 0;
  stream_.next_in = const_cast<Bytef*>(in ? in : &kNoInput);
  stream_.avail_in = static_cast<uInt>(n);
  stream_.next_out = out + sizeof kZlibHeader;
  // One byte more room than the stream may take: a raw stream that ends
  // exactly at the end of its room would be reported unfinished.
  constexpr uint32_t kMostBody = kMaxCompressedBlockSize - kZlibWrapping;
  stream_.avail_out = kMostBody + 1;
  const int rc = deflate(&stream_, Z_FINISH);
  if (stream_.total_out > kMostBody) return Result::kDoesNotFit;
  if (rc == Z_STREAM_END) {
    const uint32_t body = static_cast<uint32_t>(stream_.total_out);
    const uint32_t adler = libdeflate_adler32(1, in ? in : &kNoInput, n);
    out[0] = kZlibHeader[0];
    out[1] = kZlibHeader[1];
    uint8_t* trailer = out + sizeof kZlibHeader + body;
    trailer[0] = static_cast<uint8_t>(adler >> 24);
    trailer[1] = static_cast<uint8_t>(adler >> 16);
    trailer[2] = static_cast<uint8_t>(adler >> 8);
    trailer[3] = static_cast<uint8_t>(adler);
    *outSize = body + kZlibWrapping;
    return Result::kOk;
  }
  // Z_OK or Z_BUF_ERROR with the output full: the stream needs more room,
  // which is what makes compress2 fail with a 64 KiB destination.
  if ((rc == Z_OK || rc == Z_BUF_ERROR) && stream_.avail_out == 0) return Result::kDoesNotFit;
  return Result::kFailed;
}

// Inflation goes through libdeflate rather than zlib's inflate: it gives the
// same bytes about three times faster, which is what makes checking every
// block after compressing it cheap, and reading compressed files fast.
BlockInflater::BlockInflater() : decompressor_(libdeflate_alloc_decompressor()) {
  valid_ = decompressor_ != nullptr;
}

BlockInflater::~BlockInflater() {
  if (decompressor_) libdeflate_free_decompressor(decompressor_);
}

BlockInflater::Result BlockInflater::inflate(const uint8_t* in, size_t n, uint8_t* out, size_t expected,
                                             std::string* why) {
  if (!valid_) {
    *why = "the decompressor could not be set up";
    return Result::kFailed;
  }
  static const uint8_t kNoInput = 0;
  size_t used = 0;
  size_t produced = 0;
  const libdeflate_result rc = libdeflate_zlib_decompress_ex(decompressor_, in ? in : &kNoInput, n, out,
                                                             kHFSCompressionBlockSize, &used, &produced);
  switch (rc) {
    case LIBDEFLATE_SUCCESS:
      if (produced != expected) {
        *why = "inflates to " + std::to_string(produced) + " bytes instead of " + std::to_string(expected);
        return Result::kWrongSize;
      }
      return Result::kOk;
    case LIBDEFLATE_INSUFFICIENT_SPACE:
      *why = "inflates to more than 65536 bytes";
      return Result::kTooLong;
    default:
      *why = "its zlib stream is damaged or truncated";
      return Result::kCorrupt;
  }
}

}  // namespace zephlore
