// Writes the resource-fork image of a compressed file: the data cut into
// 64 KiB blocks, each a zlib stream made on one of N worker threads, written in
// order to the image, with the header and block table put in place at the
// end. The bytes are the same for any number of workers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

struct ForkWriteOptions {
  int workers = 1;      // 1 compresses on the caller's thread
  bool verify = true;   // inflate every block again and compare with its source bytes
};

struct ForkWriteResult {
  uint64_t uncompressedSize = 0;
  uint64_t forkSize = 0;
  uint64_t blockCount = 0;
  bool shrank = false;  // forkSize < uncompressedSize
};

// Where an image goes: bytes at offsets, each byte once (the streams in
// order while blocks are compressed, then the map after them, then the
// header and table at the front), and at last the image's size.
class ForkImageSink {
 public:
  virtual ~ForkImageSink() = default;
  virtual bool write(uint64_t offset, const void* data, size_t n, Error* error) = 0;
  virtual bool finish(uint64_t size, Error* error) = 0;
};

// Reads sourceSize bytes of sourceFd from offset 0 (pread: the file position
// is not used) and writes the image to forkFd from offset 0, truncating a
// regular file to the image's size. Errors (kHFSErrorDomain):
//   704 a block's zlib stream would exceed 64 KiB, or the fork would be too large;
//   700 the source cannot be read, is shorter or longer than sourceSize, a block
//       did not verify, or the image cannot be written.
// Memory stays bounded by the worker count, plus 8 bytes per block.
bool writeForkImage(Env& env, int sourceFd, uint64_t sourceSize, int forkFd, const ForkWriteOptions& options,
                    ForkWriteResult* result, Error* error);

// The same from bytes in memory.
bool writeForkImage(Env& env, const void* data, size_t size, int forkFd, const ForkWriteOptions& options,
                    ForkWriteResult* result, Error* error);

// The same into a sink, whose errors are passed on as it reports them.
bool writeForkImage(Env& env, int sourceFd, uint64_t sourceSize, ForkImageSink& sink, const ForkWriteOptions& options,
                    ForkWriteResult* result, Error* error);

}  // namespace zephlore
