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
  if (auto found = index_.find(key); found != index_.end()) {
    bytes_ -= found->second->block->size;
    order_.erase(found->second);
    index_.erase(found);
  }
  bytes_ += block->size;
  order_.push_front(Entry{key, std::move(block)});
  index_[key] = order_.begin();
  while (bytes_ > capacity_) {
    Entry& oldest = order_.back();
    bytes_ -= oldest.block->size;
    index_.erase(oldest.key);
    order_.pop_back();
  }
}

void InflatedBlockCache::erase(const BlockKey& key) {
  std::lock_guard lock(mutex_);
  auto found = index_.find(key);
  if (found == index_.end()) return;
  bytes_ -= found->second->block->size;
  order_.erase(found->second);
  index_.erase(found);
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
