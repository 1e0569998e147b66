// Taking the first n elements of a list at once (the compressor drains its
// queue 50 at a time).
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <vector>

namespace zephlore {

// Removes and returns the first min(count, size) elements, in order. Only the
// count's low 32 bits are used.
template <typename List>
std::vector<typename List::value_type> leftPopNumObjects(List& list, uint64_t count) {
  const size_t n = std::min<size_t>(static_cast<uint32_t>(count), list.size());
  auto end = std::next(list.begin(), static_cast<std::ptrdiff_t>(n));
  std::vector<typename List::value_type> taken(std::make_move_iterator(list.begin()),
                                               std::make_move_iterator(end));
  list.erase(list.begin(), end);
  return taken;
}

}  // namespace zephlore
