#include "engine/fork_image_writer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "engine/block_codec.h"
#include "engine/fd_io.h"
#include "engine/hfs_compression_structs_helper.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/ordered_block_pipeline.h"

namespace zephlore {

namespace {

using H = QVHFSCompressionStructsHelper;

constexpr size_t kBlock = kHFSCompressionBlockSize;
constexpr size_t kWriteBufferSize = 1 << 20;  // streams reach the image in runs of up to 1 MiB
constexpr uint64_t kFooterSize = sizeof(HFSPlusCmpfEnd);
// The largest map offset the compressed form allows, less 9 bytes per block.
constexpr int64_t kMapOffsetLimitBase = 0x7FDFFEC4;

bool readFailure(Error* error, const std::string& why) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read source data: " + why);
}

bool writeFailure(Error* error, int err) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotWrite,
              std::string("Could not write the compressed data: ") + std::strerror(err));
}

bool notCompressible(Error* error, const std::string& why) {
  return fail(error, kHFSErrorDomain, kHFSErrorNotCompressible, "Source data cannot be compressed: " + why);
}

// An image file, written with pwrite and cut to the image's size.
class FdSink final : public ForkImageSink {
 public:
  FdSink(Env& env, int fd) : env_(env), fd_(fd) {}
  bool write(uint64_t offset, const void* data, size_t n, Error* error) override {
    return pwriteFull(env_, fd_, data, n, offset) || writeFailure(error, errno);
  }
  bool finish(uint64_t size, Error* error) override {
    struct stat st;
    if (env_.fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) != size &&
        env_.ftruncate(fd_, size) != 0) {
      return writeFailure(error, errno);
    }
    return true;
  }

 private:
  Env& env_;
  const int fd_;
};

// What one worker keeps between blocks.
struct WorkerCodec {
  BlockDeflater deflater;
  BlockInflater inflater;
  std::unique_ptr<uint8_t[]> scratch{new uint8_t[kBlock]};  // verification output
};

class ForkImageWriter {
 public:
  ForkImageWriter(Env& env, int sourceFd, const uint8_t* memory, uint64_t size, ForkImageSink& sink,
                  const ForkWriteOptions& options)
      : env_(env), sourceFd_(sourceFd), memory_(memory), size_(size), sink_(sink), options_(options) {}

  bool write(ForkWriteResult* result, Error* error) {
    if (size_ > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return notCompressible(error, "the file is too large");
    }
    blockCount_ = H::blocksRequiredForUncompressedSize(static_cast<int64_t>(size_));
    // Every block takes at least 8 table bytes and 8 stream bytes; offsets are
    // 32-bit, so a fork that could not be addressed is refused up front.
    if (kRsrcDataOffset + 8 + 16 * blockCount_ + kFooterSize > std::numeric_limits<uint32_t>::max()) {
      return notCompressible(error, "the file is too large for the compressed form");
    }
    mapOffsetLimit_ = kMapOffsetLimitBase - 9 * static_cast<int64_t>(blockCount_);
    streamsStart_ = kRsrcDataOffset + 8 + 8 * blockCount_;
    writeOffset_ = streamsStart_;

    if (!allocate(error)) return false;
    if (!compressBlocks(error)) return false;
    if (!flushWriteBuffer(error)) return false;
    if (sourceFd_ >= 0 && !checkSourceEnded(error)) return false;
    if (!writeHeaderTableAndFooter(error)) return false;

    if (result) {
      result->uncompressedSize = size_;
      result->forkSize = forkSize_;
      result->blockCount = blockCount_;
      result->shrank = forkSize_ < size_;
    }
    return true;
  }

 private:
  bool allocate(Error* error) {
    try {
      head_ = H::createResourceHeader();
      blockHead_ = H::createBlocksHeader();
      table_ = H::createPerBlockHeadersForBlocks(static_cast<uint32_t>(blockCount_));
      if (blockCount_ > 0 && !table_) throw std::bad_alloc();
      if (blockCount_ == 0) return true;
      workers_ = std::max(options_.workers, 1);
      window_ = OrderedBlockPipeline::windowForWorkers(workers_);
      if (!memory_) input_.reset(new uint8_t[window_ * kBlock]);
      output_.reset(new uint8_t[window_ * kMaxCompressedBlockSize]);
      outputSize_.assign(window_, 0);
      writeBuffer_.reset(new uint8_t[kWriteBufferSize]);
      const size_t codecs = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(workers_), blockCount_));
      for (size_t i = 0; i < codecs; ++i) {
        codecs_.push_back(std::make_unique<WorkerCodec>());
        if (!codecs_.back()->deflater.valid() || !codecs_.back()->inflater.valid()) throw std::bad_alloc();
      }
    } catch (const std::bad_alloc&) {
      return fail(error, kHFSErrorDomain, kHFSErrorOutOfMemory, "Could not allocate memory to compress the file");
    }
    return true;
  }

  uint64_t blockLength(uint64_t index) const { return std::min<uint64_t>(kBlock, size_ - index * kBlock); }

  const uint8_t* blockInput(uint64_t index, size_t slot) const {
    return memory_ ? memory_ + index * kBlock : input_.get() + slot * kBlock;
  }

  bool compressBlocks(Error* error) {
    OrderedBlockPipeline::Stages stages;
    stages.fill = [this](uint64_t first, size_t slot, size_t n, Error* e) { return fill(first, slot, n, e); };
    stages.work = [this](uint64_t index, size_t slot, size_t worker, Error* e) {
      return compressBlock(index, slot, *codecs_[worker], e);
    };
    stages.drain = [this](uint64_t index, size_t slot, Error* e) { return appendBlock(index, slot, e); };
    return OrderedBlockPipeline::run(blockCount_, workers_, window_, stages, error);
  }

  // One pread for the whole run of slots.
  bool fill(uint64_t first, size_t slot, size_t n, Error* error) {
    if (memory_) return true;
    const uint64_t offset = first * kBlock;
    const size_t want = static_cast<size_t>(std::min<uint64_t>(n * kBlock, size_ - offset));
    const ssize_t got = preadFull(env_, sourceFd_, input_.get() + slot * kBlock, want, offset);
    if (got < 0) return readFailure(error, std::strerror(errno));
    if (static_cast<size_t>(got) != want) {
      return readFailure(error, "the file ended at " + std::to_string(offset + static_cast<uint64_t>(got)) +
                                    " bytes instead of " + std::to_string(size_) + " (it changed while being read)");
    }
    return true;
  }

  bool compressBlock(uint64_t index, size_t slot, WorkerCodec& codec, Error* error) {
    const uint8_t* in = blockInput(index, slot);
    const size_t n = static_cast<size_t>(blockLength(index));
    uint8_t* out = output_.get() + slot * kMaxCompressedBlockSize;
    uint32_t outSize = 0;
    switch (codec.deflater.compress(in, n, out, &outSize)) {
      case BlockDeflater::Result::kOk:
        break;
      case BlockDeflater::Result::kDoesNotFit:
        return notCompressible(error, "block " + std::to_string(index) + " does not fit in 65536 bytes compressed");
      case BlockDeflater::Result::kFailed:
        return fail(error, kHFSErrorDomain, kHFSErrorNotCompressible, "Source data cannot be compressed");
    }
    if (options_.verify) {
      std::string why;
      if (codec.inflater.inflate(out, outSize, codec.scratch.get(), n, &why) != BlockInflater::Result::kOk ||
          std::memcmp(codec.scratch.get(), in, n) != 0) {
        return fail(error, kHFSErrorDomain, kHFSErrorVerificationFailed,
                    "Compressed data did not verify: block " + std::to_string(index) + " does not inflate to its source");
      }
    }
    outputSize_[slot] = outSize;
    return true;
  }

  // In block order: account for the block and queue its stream for writing.
  bool appendBlock(uint64_t index, size_t slot, Error* error) {
    (void)index;
    const uint32_t size = outputSize_[slot];
    const uint64_t mapOffset = uint64_t{head_.mapOffset} + size + 8;
    if ((mapOffsetLimit_ >= 0 && mapOffset > static_cast<uint64_t>(mapOffsetLimit_)) ||
        mapOffset + kFooterSize > std::numeric_limits<uint32_t>::max()) {
      return notCompressible(error, "the compressed form would be too large");
    }
    H::appendBlock(&head_, &blockHead_, table_.get(), size);
    if (buffered_ + size > kWriteBufferSize && !flushWriteBuffer(error)) return false;
    std::memcpy(writeBuffer_.get() + buffered_, output_.get() + slot * kMaxCompressedBlockSize, size);
    buffered_ += size;
    return true;
  }

  bool flushWriteBuffer(Error* error) {
    if (buffered_ == 0) return true;
    if (!sink_.write(writeOffset_, writeBuffer_.get(), buffered_, error)) return false;
    writeOffset_ += buffered_;
    buffered_ = 0;
    return true;
  }

  // A source that grew would have more blocks than its table has room for.
  bool checkSourceEnded(Error* error) {
    uint8_t probe;
    const ssize_t got = preadFull(env_, sourceFd_, &probe, 1, size_);
    if (got < 0) return readFailure(error, std::strerror(errno));
    if (got != 0) return readFailure(error, "the file grew beyond " + std::to_string(size_) + " bytes while being read");
    return true;
  }

  // The 256-byte header area, the block head and the table in one write,
  // then the map after the last stream.
  bool writeHeaderTableAndFooter(Error* error) {
    H::finishBlocks(head_, &blockHead_);
    const uint64_t prologueSize = streamsStart_;
    std::vector<uint8_t> prologue;
    try {
      prologue.assign(prologueSize, 0);
    } catch (const std::bad_alloc&) {
      return fail(error, kHFSErrorDomain, kHFSErrorOutOfMemory, "Could not allocate memory to compress the file");
    }
    H::flipRsrcHead(&head_);
    std::memcpy(prologue.data(), &head_, sizeof head_);
    H::flipRsrcHead(&head_);
    H::flipRsrcBlockHead(&blockHead_);
    std::memcpy(prologue.data() + kRsrcDataOffset, &blockHead_, sizeof blockHead_);
    H::flipRsrcBlockHead(&blockHead_);
    for (uint64_t i = 0; i < blockCount_; ++i) {
      H::flipRsrcBlock(&table_[i]);
      std::memcpy(prologue.data() + kRsrcDataOffset + 8 + 8 * i, &table_[i], sizeof(HFSPlusCmpfRsrcBlock));
      H::flipRsrcBlock(&table_[i]);
    }
    HFSPlusCmpfEnd footer = H::createFooter();
    H::flipHFSPlusCmpfEnd(&footer);
    if (!sink_.write(head_.mapOffset, &footer, sizeof footer, error)) return false;
    if (!sink_.write(0, prologue.data(), prologue.size(), error)) return false;
    forkSize_ = static_cast<uint64_t>(head_.mapOffset) + kFooterSize;
    return sink_.finish(forkSize_, error);
  }

  Env& env_;
  const int sourceFd_;
  const uint8_t* const memory_;
  const uint64_t size_;
  ForkImageSink& sink_;
  const ForkWriteOptions options_;

  uint64_t blockCount_ = 0;
  int64_t mapOffsetLimit_ = 0;
  uint64_t streamsStart_ = 0;
  uint64_t writeOffset_ = 0;
  uint64_t forkSize_ = 0;
  HFSPlusCmpfRsrcHead head_{};
  HFSPlusCmpfRsrcBlockHead blockHead_{};
  HFSPlusCmpfRsrcBlockTable table_;

  int workers_ = 1;
  size_t window_ = 1;
  std::unique_ptr<uint8_t[]> input_;   // window slots of source bytes (fd source only)
  std::unique_ptr<uint8_t[]> output_;  // window slots of zlib streams
  std::vector<uint32_t> outputSize_;
  std::vector<std::unique_ptr<WorkerCodec>> codecs_;
  std::unique_ptr<uint8_t[]> writeBuffer_;
  size_t buffered_ = 0;
};

}  // namespace

bool writeForkImage(Env& env, int sourceFd, uint64_t sourceSize, int forkFd, const ForkWriteOptions& options,
                    ForkWriteResult* result, Error* error) {
  FdSink sink(env, forkFd);
  return writeForkImage(env, sourceFd, sourceSize, sink, options, result, error);
}

bool writeForkImage(Env& env, const void* data, size_t size, int forkFd, const ForkWriteOptions& options,
                    ForkWriteResult* result, Error* error) {
  if (!data && size > 0) return readFailure(error, "no source data");
  FdSink sink(env, forkFd);
  return ForkImageWriter(env, -1, static_cast<const uint8_t*>(data), size, sink, options).write(result, error);
}

bool writeForkImage(Env& env, int sourceFd, uint64_t sourceSize, ForkImageSink& sink, const ForkWriteOptions& options,
                    ForkWriteResult* result, Error* error) {
  if (sourceFd < 0) return readFailure(error, "no source descriptor");
  return ForkImageWriter(env, sourceFd, nullptr, sourceSize, sink, options).write(result, error);
}

}  // namespace zephlore
