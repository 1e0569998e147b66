#include "base/operation_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "base/log.h"

namespace zephlore {
namespace {

TEST(OperationQueue, CompletionFollowsWorkOnAQueueThreadEvenWhenWorkFails) {
  OperationQueue queue(1);
  const std::thread::id test_thread = std::this_thread::get_id();
  std::vector<std::string> steps;  // written by the single worker only
  std::vector<std::string> lines;
  std::mutex lines_mutex;
  ScopedLogCapture capture([&](const std::string& line) {
    std::lock_guard lock(lines_mutex);
    lines.push_back(line);
  });

  bool cancelled = true;
  queue.addOperation(
      [&] {
        if (cancelled) {  // the work ends early, as a cancelled analysis does
          steps.push_back("work returned early");
          return;
        }
        steps.push_back("never");
      },
      [&] {
        EXPECT_NE(std::this_thread::get_id(), test_thread);
        steps.push_back("completion 1");
      });
  queue.addOperation([&] { throw std::runtime_error("disk gone"); },
                     [&] { steps.push_back("completion 2"); });
  queue.addOperation(nullptr, [&] { steps.push_back("completion only"); });
  queue.addOperation([&] { steps.push_back("still working"); });
  queue.waitUntilAllOperationsAreFinished();

  EXPECT_EQ(steps, (std::vector<std::string>{"work returned early", "completion 1", "completion 2",
                                             "completion only", "still working"}));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("disk gone"), std::string::npos);
  EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueue, SubmittedFromManyThreadsAllRunWithinTheLimit) {
  std::atomic<int> ran{0}, running{0}, peak{0};
  {
    OperationQueue queue(2);
    std::vector<std::thread> submitters;
    for (int t = 0; t < 4; ++t) {
      submitters.emplace_back([&] {
        for (int i = 0; i < 50; ++i) {
          queue.addOperation([&] {
            int now = ++running;
            int seen = peak.load();
            while (now > seen && !peak.compare_exchange_weak(seen, now)) {
            }
            --running;
          }, [&] { ++ran; });
        }
      });
    }
    for (auto& t : submitters) t.join();
    // Destruction lets every queued operation finish first.
  }
  EXPECT_EQ(ran, 200);
  EXPECT_LE(peak, 2);
}

}  // namespace
}  // namespace zephlore
