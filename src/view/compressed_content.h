// The content of one open compressed file, read block by block through the
// shared cache. Several threads may read at once: each inflation takes a
// decoder (fork reader) of its own from a small pool, so two readers of one
// file inflate two blocks side by side.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/error.h"
#include "view/inflated_block_cache.h"

namespace zephlore {
class AttributeForkSource;
class CompressedForkReader;
}  // namespace zephlore

namespace zephlore::view {

class CompressedContent {
 public:
  // `fd` stays the caller's and must outlive this object; `st` is its stat
  // and `size` the content size from the file's header. The fork's header
  // and block table are checked here; `name` is for log lines.
  static std::unique_ptr<CompressedContent> open(int fd, const struct stat& st, uint64_t size, std::string name,
                                                 InflatedBlockCache& cache, Error* error);
  ~CompressedContent();

  uint64_t size() const { return size_; }

  // Copies the content in [offset, offset + n), cut at the end, to `out`.
  // Returns the bytes copied, or -EIO when a block it touches is corrupt or
  // unreadable (logged once per block for the whole view).
  ssize_t read(uint64_t offset, size_t n, uint8_t* out);

 private:
  struct Decoder;
  CompressedContent(int fd, const struct stat& st, uint64_t size, std::string name, InflatedBlockCache& cache);
  std::unique_ptr<Decoder> makeDecoder(Error* error);
  InflatedBlockCache::Block block(uint64_t index);

  const int fd_;
  const uint64_t size_;
  const std::string name_;
  InflatedBlockCache& cache_;
  BlockKey key_;

  std::mutex mutex_;  // guards idle_
  std::vector<std::unique_ptr<Decoder>> idle_;
};

}  // namespace zephlore::view
