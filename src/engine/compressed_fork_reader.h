// Reads the uncompressed content of a file from its resource-fork image:
// validates the image once when opened, then serves ranges by inflating only
// the blocks they overlap, or expands everything on N worker threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/error.h"
#include "engine/block_codec.h"
#include "engine/fork_source.h"
#include "engine/hfs_compression_structs_helper.h"
#include "platform/env.h"

namespace zephlore {

class CompressedForkReader {
 public:
  // Checks the resource header, the block head and every table entry against
  // the fork's size and against expectedUncompressedSize (from the file's
  // compression header). A fork that fails fails with 706 in kHFSErrorDomain;
  // a source that cannot be read with its own error (700). Memory used is
  // 8 bytes per block, which the fork's size bounds.
  static std::unique_ptr<CompressedForkReader> open(Env& env, ForkSource& source, uint64_t expectedUncompressedSize,
                                                    Error* error);

  uint64_t uncompressedSize() const { return uncompressedSize_; }
  uint64_t blockCount() const { return blockCount_; }
  uint64_t forkSize() const { return forkSize_; }
  uint64_t compressedDataSize() const { return compressedDataSize_; }  // sum of the blocks' streams

  // Copies up to n bytes of content starting at offset into buf; *got is the
  // count copied (0 at or past the end). A block that does not inflate to its
  // exact length fails with 706. Not thread-safe.
  bool read(uint64_t offset, void* buf, size_t n, size_t* got, Error* error);

  // Writes the whole content to outFd at its current position (a pipe will
  // do), inflating on `workers` threads with a bounded window and writing in
  // order. The source is read from the caller's thread only.
  bool expandTo(int outFd, int workers, Error* error);

  CompressedForkReader(const CompressedForkReader&) = delete;
  CompressedForkReader& operator=(const CompressedForkReader&) = delete;

 private:
  CompressedForkReader(Env& env, ForkSource& source, uint64_t uncompressedSize)
      : env_(env), source_(source), uncompressedSize_(uncompressedSize) {}
  bool validate(Error* error);
  uint64_t blockLength(uint64_t index) const;
  bool readCompressed(uint64_t index, uint8_t* buf, Error* error);
  bool inflateBlock(BlockInflater& inflater, uint64_t index, const uint8_t* in, uint8_t* out, Error* error);
  bool loadBlock(uint64_t index, uint8_t* out, Error* error);

  Env& env_;
  ForkSource& source_;
  const uint64_t uncompressedSize_;
  uint64_t forkSize_ = 0;
  uint64_t blockCount_ = 0;
  uint64_t compressedDataSize_ = 0;
  uint64_t blockBase_ = 0;  // fork offset the table's offsets count from
  HFSPlusCmpfRsrcBlockTable table_;

  // Range reads: one inflater, the compressed bytes of one block, and the
  // last block inflated, kept because reads tend to be sequential.
  std::unique_ptr<BlockInflater> inflater_;
  std::unique_ptr<uint8_t[]> compressed_;
  std::unique_ptr<uint8_t[]> cache_;
  uint64_t cachedBlock_ = UINT64_MAX;
};

}  // namespace zephlore
