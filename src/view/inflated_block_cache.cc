#include "view/inflated_block_cache.h"

#include <functional>

namespace zephlore::view {

size_t InflatedBlockCache::KeyHash::operator()(const BlockKey& key) const {
  return FileVersion::Hash()(key.file) * 31 + std::hash<uint64_t>()(key.block);
}

InflatedBlockCache::Block InflatedBlockCache::find(const BlockKey& key) {
  std::lock_guard lock(mutex_);
  auto found = index_.find(key);
  if (found == index_.end()) return nullptr;
  order_.splice(order_.begin(), order_, found->second);
  return found->second->block;
}

void InflatedBlockCache::insert(const BlockKey& key, Block block) {
  if (!block || block->size > capacity_) return;
  std::lock_guard lock(mutex_);
  eraseLocked(key);
  bytes_ += block->size;
  order_.push_front(Entry{key, std::move(block)});
  index_[key] = order_.begin();
  while (bytes_ > capacity_) eraseLocked(order_.back().key);
}

void InflatedBlockCache::erase(const BlockKey& key) {
  std::lock_guard lock(mutex_);
  eraseLocked(key);
}

void InflatedBlockCache::eraseLocked(const BlockKey& key) {
  auto found = index_.find(key);
  if (found == index_.end()) return;
  const auto entry = found->second;  // `key` may live in it: erased last
  index_.erase(found);
  bytes_ -= entry->block->size;
  order_.erase(entry);
}

bool InflatedBlockCache::firstReportOfBadBlock(const BlockKey& key) {
  constexpr size_t kMostRemembered = 4096;
  std::lock_guard lock(mutex_);
  if (reported_.size() >= kMostRemembered) reported_.clear();
  return reported_.emplace(key, true).second;
}

size_t InflatedBlockCache::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

}  // namespace zephlore::view
