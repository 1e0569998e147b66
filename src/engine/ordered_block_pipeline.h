// Moves a sequence of blocks through three stages with a bounded window of
// blocks in flight: `fill` and `drain` each run in block order, one call at a
// time, `work` runs on several threads in any order. The caller's thread is
// one of the workers. Slot i % window holds block i, so the memory a caller
// needs is window slots whatever the count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "base/error.h"

namespace zephlore {

class OrderedBlockPipeline {
 public:
  struct Stages {
    // Fills the consecutive slots [slot, slot + n) with blocks [first, first + n).
    std::function<bool(uint64_t first, size_t slot, size_t n, Error* error)> fill;
    // Transforms one block; `worker` is in [0, max(workers, 1)).
    std::function<bool(uint64_t index, size_t slot, size_t worker, Error* error)> work;
    // Consumes one finished block, in order.
    std::function<bool(uint64_t index, size_t slot, Error* error)> drain;
  };

  // Slots needed for `workers`: 2 per worker plus 2, so that workers never
  // wait on the in-order writer; with one worker (run inline) a batch of 16
  // blocks, so that reads stay large.
  static size_t windowForWorkers(int workers);

  // workers <= 1 runs every stage on the caller's thread, filling up to a
  // window of blocks at once; more workers fill one block per call. Stops at
  // the first failure in block order and returns its error.
  static bool run(uint64_t count, int workers, size_t window, const Stages& stages, Error* error);
};

}  // namespace zephlore
