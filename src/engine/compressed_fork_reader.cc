#include "engine/compressed_fork_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "engine/fd_io.h"
#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/ordered_block_pipeline.h"
#include "platform/env.h"

namespace zephlore {

namespace {

using H = QVHFSCompressionStructsHelper;

constexpr uint64_t kBlock = kHFSCompressionBlockSize;
constexpr size_t kWriteBufferSize = 1 << 20;

bool corrupt(Error* error, const std::string& why) {
  return fail(error, kHFSErrorDomain, kHFSErrorCannotUncompress, "Source data cannot be uncompressed: " + why);
}

bool outOfMemory(Error* error) {
  return fail(error, kHFSErrorDomain, kHFSErrorOutOfMemory, "Could not allocate memory to read the compressed data");
}

std::string str(uint64_t v) { return std::to_string(v); }

}  // namespace

std::unique_ptr<CompressedForkReader> CompressedForkReader::open(Env& env, ForkSource& source, uint64_t expectedUncompressedSize,
                                                                 Error* error) {
  std::unique_ptr<CompressedForkReader> reader(new (std::nothrow)
                                                   CompressedForkReader(env, source, expectedUncompressedSize));
  if (!reader) {
    outOfMemory(error);
    return nullptr;
  }
  if (!reader->validate(error)) return nullptr;
  return reader;
}

bool CompressedForkReader::validate(Error* error) {
  forkSize_ = source_.size();
  const uint64_t fork = forkSize_;
  if (fork < sizeof(HFSPlusCmpfRsrcHead)) return corrupt(error, "the fork is only " + str(fork) + " bytes long");

  HFSPlusCmpfRsrcHead head;
  if (!source_.readAt(0, &head, sizeof head, error)) return false;
  H::flipRsrcHead(&head);
  if (head.dataOffset < sizeof head || head.dataLength < sizeof(HFSPlusCmpfRsrcBlockHead) ||
      uint64_t{head.dataOffset} + head.dataLength > fork) {
    return corrupt(error, "the resource data (" + str(head.dataLength) + " bytes at " + str(head.dataOffset) +
                              ") does not lie inside the " + str(fork) + "-byte fork");
  }
  if (head.mapOffset < sizeof head || uint64_t{head.mapOffset} + head.mapLength > fork) {
    return corrupt(error, "the resource map (" + str(head.mapLength) + " bytes at " + str(head.mapOffset) +
                              ") does not lie inside the " + str(fork) + "-byte fork");
  }

  HFSPlusCmpfRsrcBlockHead blockHead;
  if (!source_.readAt(head.dataOffset, &blockHead, sizeof blockHead, error)) return false;
  H::flipRsrcBlockHead(&blockHead);
  // The resource: dataSize bytes after its 4-byte length; it starts with the
  // block count, which is where the table's offsets count from.
  const uint64_t resourceSize = blockHead.dataSize;
  if (resourceSize < 4 || resourceSize + 4 > head.dataLength) {
    return corrupt(error, "the resource length " + str(resourceSize) + " does not fit the data length " +
                              str(head.dataLength));
  }
  blockBase_ = uint64_t{head.dataOffset} + 4;

  const uint64_t needed = uncompressedSize_ / kBlock + (uncompressedSize_ % kBlock != 0 ? 1 : 0);
  if (blockHead.numBlocks != needed) {
    return corrupt(error, "the fork holds " + str(blockHead.numBlocks) + " blocks but a file of " +
                              str(uncompressedSize_) + " bytes needs " + str(needed));
  }
  blockCount_ = blockHead.numBlocks;
  // The table must lie inside the resource, so its allocation is bounded by
  // the fork's size however large the count claims to be.
  const uint64_t tableEnd = 4 + 8 * blockCount_;
  if (tableEnd > resourceSize) {
    return corrupt(error, "a table of " + str(blockCount_) + " blocks does not fit in a resource of " +
                              str(resourceSize) + " bytes");
  }
  if (blockCount_ > 0) {
    table_ = H::createPerBlockHeadersForBlocks(static_cast<uint32_t>(blockCount_));
    if (!table_) return outOfMemory(error);
    if (!source_.readAt(blockBase_ + 4, table_.get(), 8 * blockCount_, error)) return false;
  }
  for (uint64_t i = 0; i < blockCount_; ++i) {
    H::flipRsrcBlock(&table_[i]);
    const HFSPlusCmpfRsrcBlock& block = table_[i];
    if (block.size == 0 || block.size > kMaxStoredBlockSize) {
      return corrupt(error, "block " + str(i) + " has an impossible size of " + str(block.size) + " bytes");
    }
    if (block.offset < tableEnd || uint64_t{block.offset} + block.size > resourceSize) {
      return corrupt(error, "block " + str(i) + " (" + str(block.size) + " bytes at " + str(block.offset) +
                                ") lies outside the resource data");
    }
    compressedDataSize_ += block.size;
  }

  try {
    inflater_ = std::make_unique<BlockInflater>();
    compressed_.reset(new uint8_t[kMaxStoredBlockSize]);
    cache_.reset(new uint8_t[kBlock]);
  } catch (const std::bad_alloc&) {
    return outOfMemory(error);
  }
  if (!inflater_->valid()) return outOfMemory(error);
  return true;
}

uint64_t CompressedForkReader::blockLength(uint64_t index) const {
  return std::min<uint64_t>(kBlock, uncompressedSize_ - index * kBlock);
}

bool CompressedForkReader::readCompressed(uint64_t index, uint8_t* buf, Error* error) {
  return source_.readAt(blockBase_ + table_[index].offset, buf, table_[index].size, error);
}

bool CompressedForkReader::inflateBlock(BlockInflater& inflater, uint64_t index, const uint8_t* in, uint8_t* out,
                                        Error* error) {
  const uint32_t size = table_[index].size;
  const uint64_t length = blockLength(index);
  if (in[0] == kStoredBlockMarker) {
    // Kept as it is behind its marker (no zlib stream begins with this byte).
    if (size - 1 != length) {
      return corrupt(error, "block " + str(index) + " is stored with " + str(size - 1) + " bytes instead of " +
                                str(length));
    }
    std::memcpy(out, in + 1, length);
    return true;
  }
  if (size > kMaxCompressedBlockSize) {
    return corrupt(error, "block " + str(index) + " has an impossible size of " + str(size) + " bytes");
  }
  std::string why;
  if (inflater.inflate(in, size, out, length, &why) != BlockInflater::Result::kOk) {
    return corrupt(error, "block " + str(index) + " " + why);
  }
  return true;
}

bool CompressedForkReader::loadBlock(uint64_t index, uint8_t* out, Error* error) {
  if (!readCompressed(index, compressed_.get(), error)) return false;
  return inflateBlock(*inflater_, index, compressed_.get(), out, error);
}

bool CompressedForkReader::read(uint64_t offset, void* buf, size_t n, size_t* got, Error* error) {
  size_t done = 0;
  if (got) *got = 0;
  if (offset >= uncompressedSize_) return true;
  const size_t total = static_cast<size_t>(std::min<uint64_t>(n, uncompressedSize_ - offset));
  uint8_t* out = static_cast<uint8_t*>(buf);
  while (done < total) {
    const uint64_t pos = offset + done;
    const uint64_t index = pos / kBlock;
    const size_t within = static_cast<size_t>(pos % kBlock);
    const size_t length = static_cast<size_t>(blockLength(index));
    const size_t take = std::min(total - done, length - within);
    if (index != cachedBlock_ && take == kBlock) {
      // A whole full block: inflate straight into the caller's buffer.
      if (!loadBlock(index, out + done, error)) return false;
    } else {
      if (index != cachedBlock_) {
        cachedBlock_ = UINT64_MAX;
        if (!loadBlock(index, cache_.get(), error)) return false;
        cachedBlock_ = index;
      }
      std::memcpy(out + done, cache_.get() + within, take);
    }
    done += take;
    if (got) *got = done;
  }
  return true;
}

namespace {

bool isAllZero(const uint8_t* data, size_t n) {
  return n == 0 || (data[0] == 0 && std::memcmp(data, data + 1, n - 1) == 0);
}

bool writeError(Error* error) {
  return fail(error, kHFSErrorDomain, kHFSErrorCouldNotWrite,
              std::string("Could not write the uncompressed data: ") + std::strerror(errno));
}

}  // namespace

bool CompressedForkReader::expandTo(int outFd, int workers, Error* error) {
  workers = std::max(workers, 1);
  const size_t window = OrderedBlockPipeline::windowForWorkers(workers);
  std::unique_ptr<uint8_t[]> input, output, writeBuffer;
  std::vector<std::unique_ptr<BlockInflater>> inflaters;
  try {
    if (blockCount_ > 0) {
      input.reset(new uint8_t[window * kMaxStoredBlockSize]);
      output.reset(new uint8_t[window * kBlock]);
      writeBuffer.reset(new uint8_t[kWriteBufferSize]);
    }
    const uint64_t count = std::min<uint64_t>(static_cast<uint64_t>(workers), blockCount_);
    for (uint64_t i = 0; i < count; ++i) {
      inflaters.push_back(std::make_unique<BlockInflater>());
      if (!inflaters.back()->valid()) return outOfMemory(error);
    }
  } catch (const std::bad_alloc&) {
    return outOfMemory(error);
  }

  Env& env = env_;
  // A regular file gets holes; a pipe or terminal gets every byte in order.
  struct stat outStat;
  const bool sparse = env.fstat(outFd, &outStat) == 0 && S_ISREG(outStat.st_mode);
  size_t buffered = 0;
  uint64_t written = 0;  // where the buffer goes in the output
  auto flush = [&](Error* e) {
    if (buffered > 0 && !(sparse ? env.pwriteFully(outFd, writeBuffer.get(), buffered, written)
                                 : writeFull(outFd, writeBuffer.get(), buffered))) {
      return writeError(e);
    }
    written += buffered;
    buffered = 0;
    return true;
  };

  OrderedBlockPipeline::Stages stages;
  stages.fill = [&](uint64_t first, size_t slot, size_t n, Error* e) {
    for (size_t i = 0; i < n; ++i) {
      if (!readCompressed(first + i, input.get() + (slot + i) * kMaxStoredBlockSize, e)) return false;
    }
    return true;
  };
  stages.work = [&](uint64_t index, size_t slot, size_t worker, Error* e) {
    return inflateBlock(*inflaters[worker], index, input.get() + slot * kMaxStoredBlockSize,
                        output.get() + slot * kBlock, e);
  };
  stages.drain = [&](uint64_t index, size_t slot, Error* e) {
    const size_t length = static_cast<size_t>(blockLength(index));
    const uint8_t* block = output.get() + slot * kBlock;
    if (sparse && isAllZero(block, length)) {
      // Left as a hole: a sparse file stays sparse.
      if (!flush(e)) return false;
      written += length;
      return true;
    }
    if (buffered + length > kWriteBufferSize && !flush(e)) return false;
    std::memcpy(writeBuffer.get() + buffered, block, length);
    buffered += length;
    return true;
  };
  if (!OrderedBlockPipeline::run(blockCount_, workers, window, stages, error)) return false;
  if (!flush(error)) return false;
  // Holes at the end have no bytes written to give the file its size.
  if (sparse && env.ftruncate(outFd, uncompressedSize_) != 0) return writeError(error);
  return true;
}

}  // namespace zephlore
