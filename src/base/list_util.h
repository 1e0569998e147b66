// Small list operations: stack and queue pops that answer none on an empty
// list, taking the first n elements at once (the compressor drains its queue
// 50 at a time), and maps that keep or skip empty results (the watcher,
// the volume checks and the exclusion lists map their paths this way).
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <type_traits>
#include <vector>

namespace zephlore {

// The last element, or none.
template <typename List>
std::optional<typename List::value_type> peek(const List& list) {
  if (list.empty()) return std::nullopt;
  return list.back();
}

// Removes and returns the last element, or none.
template <typename List>
std::optional<typename List::value_type> pop(List& list) {
  if (list.empty()) return std::nullopt;
  std::optional<typename List::value_type> last(std::move(list.back()));
  list.pop_back();
  return last;
}

// Removes and returns the first element, or none.
template <typename List>
std::optional<typename List::value_type> leftPop(List& list) {
  if (list.empty()) return std::nullopt;
  std::optional<typename List::value_type> first(std::move(*list.begin()));
  list.erase(list.begin());
  return first;
}

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

// fn applied to each element, in order.
template <typename List, typename Fn>
auto map(const List& list, Fn fn) {
  using Result = std::decay_t<std::invoke_result_t<Fn&, const typename List::value_type&>>;
  std::vector<Result> out;
  out.reserve(list.size());
  for (const auto& element : list) out.push_back(std::invoke(fn, element));
  return out;
}

// fn (answering std::optional) applied to each element. With `skipNil` the
// empty answers are left out; without it they stay as none, so the result
// keeps the input's length and positions.
template <typename List, typename Fn>
auto mapSkippingNilValues(const List& list, Fn fn, bool skipNil) {
  using Result = std::decay_t<std::invoke_result_t<Fn&, const typename List::value_type&>>;
  std::vector<Result> out;
  out.reserve(list.size());
  for (const auto& element : list) {
    Result value = std::invoke(fn, element);
    if (value || !skipNil) out.push_back(std::move(value));
  }
  return out;
}

// The common case: only the present answers, unwrapped.
template <typename List, typename Fn>
auto mapSkippingNilValues(const List& list, Fn fn) {
  using Result = typename std::decay_t<
      std::invoke_result_t<Fn&, const typename List::value_type&>>::value_type;
  std::vector<Result> out;
  for (const auto& element : list) {
    auto value = std::invoke(fn, element);
    if (value) out.push_back(std::move(*value));
  }
  return out;
}

}  // namespace zephlore
