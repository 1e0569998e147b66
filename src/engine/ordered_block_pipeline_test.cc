#include "engine/ordered_block_pipeline.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace zephlore {
namespace {

// Records what the stages saw; `failAt` makes a stage fail at that block.
struct Recorder {
  std::mutex mutex;
  std::vector<uint64_t> filled, drained;
  std::set<size_t> workersSeen;
  size_t mostInFlight = 0;
  std::atomic<int> fillsAtOnce{0}, drainsAtOnce{0};
  bool overlapped = false;
  std::vector<uint64_t> slotBlock;  // which block each slot holds

  OrderedBlockPipeline::Stages stages(size_t window, uint64_t failFill = UINT64_MAX, uint64_t failWork = UINT64_MAX,
                                      uint64_t failDrain = UINT64_MAX) {
    slotBlock.assign(window, UINT64_MAX);
    OrderedBlockPipeline::Stages s;
    s.fill = [=, this](uint64_t first, size_t slot, size_t n, Error* error) {
      if (fillsAtOnce.fetch_add(1) != 0) overlapped = true;
      std::lock_guard<std::mutex> lock(mutex);
      for (size_t i = 0; i < n; ++i) {
        filled.push_back(first + i);
        slotBlock[slot + i] = first + i;
        mostInFlight = std::max<size_t>(mostInFlight, filled.size() - drained.size());
      }
      fillsAtOnce.fetch_sub(1);
      if (first <= failFill && failFill < first + n) return fail(error, "test", 1, "fill " + std::to_string(failFill));
      return true;
    };
    s.work = [=, this](uint64_t index, size_t slot, size_t worker, Error* error) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        workersSeen.insert(worker);
        if (slotBlock[slot] != index) overlapped = true;
      }
      // Uneven work, so that blocks finish out of order.
      volatile uint64_t spin = (index * 7919) % 5000;
      while (spin > 0) spin = spin - 1;
      if (index >= failWork) return fail(error, "test", 2, "work " + std::to_string(index));
      return true;
    };
    s.drain = [=, this](uint64_t index, size_t slot, Error* error) {
      if (drainsAtOnce.fetch_add(1) != 0) overlapped = true;
      std::lock_guard<std::mutex> lock(mutex);
      if (slotBlock[slot] != index) overlapped = true;
      drained.push_back(index);
      drainsAtOnce.fetch_sub(1);
      if (index == failDrain) return fail(error, "test", 3, "drain " + std::to_string(index));
      return true;
    };
    return s;
  }
};

std::vector<uint64_t> upTo(uint64_t n) {
  std::vector<uint64_t> v;
  for (uint64_t i = 0; i < n; ++i) v.push_back(i);
  return v;
}

TEST(OrderedBlockPipeline, FillsAndDrainsInOrderWithinTheWindowOnAnyWorkerCount) {
  for (int workers : {1, 2, 3, 8}) {
    SCOPED_TRACE(workers);
    const size_t window = OrderedBlockPipeline::windowForWorkers(workers);
    Recorder r;
    Error error;
    ASSERT_TRUE(OrderedBlockPipeline::run(500, workers, window, r.stages(window), &error)) << error.message;
    EXPECT_EQ(r.filled, upTo(500));
    EXPECT_EQ(r.drained, upTo(500));
    EXPECT_LE(r.mostInFlight, window);
    EXPECT_FALSE(r.overlapped);
    EXPECT_LT(*r.workersSeen.rbegin(), static_cast<size_t>(workers));  // a codec per worker index
  }
}

// Whatever fails, the run stops with the error of the first failing block
// in block order, and nothing after it is drained.
TEST(OrderedBlockPipeline, StopsAtTheFirstFailureInBlockOrder) {
  for (int workers : {1, 2, 4}) {
    SCOPED_TRACE(workers);
    const size_t window = OrderedBlockPipeline::windowForWorkers(workers);
    {
      Recorder r;
      Error error;
      // Every block from 100 on fails its work; 100 is the one reported.
      EXPECT_FALSE(OrderedBlockPipeline::run(300, workers, window, r.stages(window, UINT64_MAX, 100), &error));
      EXPECT_EQ(error.message, "work 100");
      EXPECT_EQ(r.drained, upTo(100));
    }
    {
      Recorder r;
      Error error;
      EXPECT_FALSE(OrderedBlockPipeline::run(300, workers, window, r.stages(window, 150), &error));
      EXPECT_EQ(error.message, "fill 150");
      EXPECT_EQ(r.drained, upTo(std::min<uint64_t>(150, r.drained.size())));
      EXPECT_LE(r.drained.size(), 150u);
      EXPECT_LE(r.filled.back(), workers == 1 ? 159u : 150u);  // nothing read past a failed read
    }
    {
      Recorder r;
      Error error;
      EXPECT_FALSE(
          OrderedBlockPipeline::run(300, workers, window, r.stages(window, UINT64_MAX, UINT64_MAX, 42), &error));
      EXPECT_EQ(error.message, "drain 42");
      EXPECT_EQ(r.drained, upTo(43));
    }
  }
}

}  // namespace
}  // namespace zephlore
