// The content of one open compressed file, read block by block through the
// shared cache. Several threads may read at once: each inflation takes a
// decoder (fork reader) of its own from a small pool, a block being inflated
// is waited for rather than inflated twice, and a reader going forward has
// the next blocks inflated ahead of it.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/env.h"
#include "view/block_prefetcher.h"
#include "view/inflated_block_cache.h"

namespace zephlore {
class AttributeForkSource;
class CompressedForkReader;
}  // namespace zephlore

namespace zephlore::view {

struct SharedFork;  // the one fork source of a file's decoders

class CompressedContent : public std::enable_shared_from_this<CompressedContent> {
 public:
  // Reads the file open on `fd` (duplicated, so the caller keeps its own);
  // `st` is its stat and `size` the content size from the file's header;
  // `name` is for log lines. The fork is opened and checked at the first
  // block not in the cache: a file whose pages the kernel kept is opened
  // without reading its fork at all.
  static std::shared_ptr<CompressedContent> open(Env& env, int fd, const struct stat& st, uint64_t size, std::string name,
                                                 InflatedBlockCache& cache, BlockPrefetcher& prefetcher,
                                                 Error* error);
  ~CompressedContent();

  uint64_t size() const { return size_; }

  // Copies the content in [offset, offset + n), cut at the end, to `out`.
  // Returns the bytes copied, or -EIO when a block it touches is corrupt or
  // unreadable (logged once per block for the whole view).
  ssize_t read(uint64_t offset, size_t n, uint8_t* out);

  // The same range as the inflated blocks holding it, each with the part
  // wanted, for a reply that refers to them rather than copying them.
  struct Piece {
    InflatedBlockCache::Block block;
    size_t from;
    size_t length;
  };
  ssize_t pieces(uint64_t offset, size_t n, std::vector<Piece>* out);

 private:
  struct Decoder;
  CompressedContent(Env& env, UniqueFd fd, const struct stat& st, uint64_t size, std::string name, InflatedBlockCache& cache,
                    BlockPrefetcher& prefetcher);
  std::unique_ptr<Decoder> makeDecoder(Error* error);
  InflatedBlockCache::Block block(uint64_t index);
  void prefetchFrom(uint64_t index);
  void prefetch(uint64_t index);

  Env& env_;
  const UniqueFd fd_;
  const uint64_t size_;
  const uint64_t blockCount_;
  const std::string name_;
  InflatedBlockCache& cache_;
  BlockPrefetcher& prefetcher_;
  BlockKey key_;
  std::atomic<uint64_t> nextOffset_{0};  // where a reader going forward reads next

  std::mutex mutex_;  // guards the six below
  std::condition_variable inflated_;
  size_t waiting_ = 0;  // readers waiting for a block another thread inflates
  std::vector<std::unique_ptr<Decoder>> idle_;
  std::set<uint64_t> inFlight_;
  uint64_t prefetchedTo_ = 0;  // blocks before this were handed to the prefetcher
  std::shared_ptr<SharedFork> fork_;  // opened with the first decoder
};

}  // namespace zephlore::view
