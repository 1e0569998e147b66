#include "engine/block_codec.h"

#include "engine/hfs_compression_structs_helper.h"

namespace zephlore {

BlockDeflater::BlockDeflater() {
  // compress2 calls deflateInit(level), which is this.
  valid_ = deflateInit2(&stream_, kBlockCompressionLevel, Z_DEFLATED, MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK;
}

BlockDeflater::~BlockDeflater() {
  if (valid_) deflateEnd(&stream_);
}

BlockDeflater::Result BlockDeflater::compress(const uint8_t* in, size_t n, uint8_t* out, uint32_t* outSize) {
  if (!valid_ || n > kHFSCompressionBlockSize || deflateReset(&stream_) != Z_OK) return Result::kFailed;
  stream_.next_in = const_cast<Bytef*>(in);
  stream_.avail_in = static_cast<uInt>(n);
  stream_.next_out = out;
  stream_.avail_out = kMaxCompressedBlockSize;
  const int rc = deflate(&stream_, Z_FINISH);
  if (rc == Z_STREAM_END) {
    *outSize = static_cast<uint32_t>(stream_.total_out);
    return Result::kOk;
  }
  // Z_OK or Z_BUF_ERROR with the output full: the stream needs more room,
  // which is what makes compress2 fail with a 64 KiB destination.
  if ((rc == Z_OK || rc == Z_BUF_ERROR) && stream_.avail_out == 0) return Result::kDoesNotFit;
  return Result::kFailed;
}

BlockInflater::BlockInflater() { valid_ = inflateInit(&stream_) == Z_OK; }

BlockInflater::~BlockInflater() {
  if (valid_) inflateEnd(&stream_);
}

BlockInflater::Result BlockInflater::inflate(const uint8_t* in, size_t n, uint8_t* out, size_t expected,
                                             std::string* why) {
  if (!valid_ || inflateReset(&stream_) != Z_OK) {
    *why = "zlib could not be set up";
    return Result::kFailed;
  }
  stream_.next_in = const_cast<Bytef*>(in);
  stream_.avail_in = static_cast<uInt>(n);
  stream_.next_out = out;
  stream_.avail_out = kHFSCompressionBlockSize;
  const int rc = ::inflate(&stream_, Z_FINISH);
  if (rc == Z_STREAM_END) {
    if (stream_.total_out != expected) {
      *why = "inflates to " + std::to_string(stream_.total_out) + " bytes instead of " + std::to_string(expected);
      return Result::kWrongSize;
    }
    return Result::kOk;
  }
  if ((rc == Z_OK || rc == Z_BUF_ERROR) && stream_.avail_out == 0) {
    *why = "inflates to more than 65536 bytes";
    return Result::kTooLong;
  }
  if (rc == Z_BUF_ERROR || rc == Z_OK) {
    *why = "its zlib stream is truncated";
  } else if (rc == Z_NEED_DICT) {
    *why = "its zlib stream needs a preset dictionary";
  } else {
    *why = std::string("it does not inflate (") + (stream_.msg ? stream_.msg : zError(rc)) + ")";
  }
  return Result::kCorrupt;
}

}  // namespace zephlore
