#include "view/compressed_content.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "engine/attribute_fork_source.h"
#include "engine/compressed_fork_reader.h"
#include "engine/hfs_compression_structs_helper.h"

namespace zephlore::view {
namespace {

constexpr uint64_t kBlock = kHFSCompressionBlockSize;
// Idle decoders kept per file: one per thread that usually reads it at once.
constexpr size_t kMostIdleDecoders = 4;

}  // namespace

struct CompressedContent::Decoder {
  std::unique_ptr<AttributeForkSource> fork;
  std::unique_ptr<CompressedForkReader> reader;
};

CompressedContent::CompressedContent(int fd, const struct stat& st, uint64_t size, std::string name,
                                     InflatedBlockCache& cache)
    : fd_(fd), size_(size), name_(std::move(name)), cache_(cache) {
  key_.device = st.st_dev;
  key_.inode = st.st_ino;
  key_.changeTimeNs = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
}

CompressedContent::~CompressedContent() = default;

std::unique_ptr<CompressedContent> CompressedContent::open(int fd, const struct stat& st, uint64_t size,
                                                           std::string name, InflatedBlockCache& cache,
                                                           Error* error) {
  std::unique_ptr<CompressedContent> content(new CompressedContent(fd, st, size, std::move(name), cache));
  std::unique_ptr<Decoder> first = content->makeDecoder(error);
  if (!first) return nullptr;
  content->idle_.push_back(std::move(first));
  return content;
}

std::unique_ptr<CompressedContent::Decoder> CompressedContent::makeDecoder(Error* error) {
  auto decoder = std::make_unique<Decoder>();
  decoder->fork = AttributeForkSource::open(FileRef::descriptor(fd_), name_, error);
  if (!decoder->fork) return nullptr;
  decoder->reader = CompressedForkReader::open(*decoder->fork, size_, error);
  if (!decoder->reader) return nullptr;
  return decoder;
}

InflatedBlockCache::Block CompressedContent::block(uint64_t index) {
  BlockKey key = key_;
  key.block = index;
  if (InflatedBlockCache::Block cached = cache_.find(key)) return cached;

  std::unique_ptr<Decoder> decoder;
  {
    std::lock_guard lock(mutex_);
    if (!idle_.empty()) {
      decoder = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  Error error;
  if (!decoder) decoder = makeDecoder(&error);
  auto inflated = std::make_shared<std::vector<uint8_t>>(std::min(kBlock, size_ - index * kBlock));
  size_t got = 0;
  bool ok = decoder && decoder->reader->read(index * kBlock, inflated->data(), inflated->size(), &got, &error) &&
            got == inflated->size();

  {
    std::lock_guard lock(mutex_);
    if (decoder && idle_.size() < kMostIdleDecoders) idle_.push_back(std::move(decoder));
  }
  if (!ok) {
    if (cache_.firstReportOfBadBlock(key)) {
      KRLog("Block %llu of %s cannot be read, reads of it fail: %s", static_cast<unsigned long long>(index),
            name_.c_str(), error.describe().c_str());
    }
    return nullptr;
  }
  InflatedBlockCache::Block result = std::move(inflated);
  cache_.insert(key, result);
  return result;
}

ssize_t CompressedContent::read(uint64_t offset, size_t n, uint8_t* out) {
  if (offset >= size_) return 0;
  const size_t total = static_cast<size_t>(std::min<uint64_t>(n, size_ - offset));
  size_t done = 0;
  while (done < total) {
    const uint64_t pos = offset + done;
    InflatedBlockCache::Block data = block(pos / kBlock);
    if (!data) return -EIO;
    const size_t within = static_cast<size_t>(pos % kBlock);
    const size_t take = std::min(total - done, data->size() - within);
    std::memcpy(out + done, data->data() + within, take);
    done += take;
  }
  return static_cast<ssize_t>(done);
}

}  // namespace zephlore::view
