// The inflated blocks of compressed files, shared by every open file of the
// view and bounded in bytes: the least recently used blocks go first.
// Thread-safe.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "view/file_version.h"

namespace zephlore::view {

// One block of one version of a file (the version tells a file apart from a
// later one that took over its inode number).
struct BlockKey {
  FileVersion file;
  uint64_t block = 0;
  bool operator==(const BlockKey&) const = default;
};

// The bytes of one inflated block (left uninitialised until inflated into).
struct InflatedBlock {
  explicit InflatedBlock(size_t n) : bytes(new uint8_t[n]), size(n) {}
  std::unique_ptr<uint8_t[]> bytes;
  size_t size;
  const uint8_t* data() const { return bytes.get(); }
};

class InflatedBlockCache {
 public:
  using Block = std::shared_ptr<const InflatedBlock>;

  explicit InflatedBlockCache(size_t capacityBytes) : capacity_(capacityBytes) {}

  // The block, or null when it is not cached.
  Block find(const BlockKey& key);
  // Adds (or replaces) a block, dropping the oldest ones past the capacity.
  // Readers holding a dropped block keep it until they let go.
  void insert(const BlockKey& key, Block block);
  // Drops a block (readers holding it keep it until they let go).
  void erase(const BlockKey& key);

  // True the first time a block is reported bad (for as many blocks as a
  // small bound allows), so that each is logged once, not at every read.
  bool firstReportOfBadBlock(const BlockKey& key);

  size_t bytes() const;
  size_t capacity() const { return capacity_; }

 private:
  struct KeyHash {
    size_t operator()(const BlockKey& key) const;
  };
  struct Entry {
    BlockKey key;
    Block block;
  };

  void eraseLocked(const BlockKey& key);

  const size_t capacity_;
  mutable std::mutex mutex_;
  std::list<Entry> order_;  // most recently used first
  std::unordered_map<BlockKey, std::list<Entry>::iterator, KeyHash> index_;
  size_t bytes_ = 0;
  std::unordered_map<BlockKey, bool, KeyHash> reported_;
};

}  // namespace zephlore::view
