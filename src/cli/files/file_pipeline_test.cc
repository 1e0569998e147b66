#include "cli/files/file_pipeline.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>

namespace zephlore::cli {
namespace {

// Small files run side by side with one engine thread each; a large file
// waits for the slots, runs alone with all of them, and nothing overtakes it.
TEST(FilePipeline, SmallFilesShareTheSlotsLargeFilesTakeThemAll) {
  constexpr int kJobs = 3;
  std::mutex mutex;
  std::condition_variable changed;
  int in_flight = 0;
  int max_in_flight = 0;
  bool large_seen = false;
  bool small_after_large_started_early = false;
  std::set<std::string> reported;

  auto work = [&](const FilePipeline::Job& job, int workers) {
    std::unique_lock<std::mutex> lock(mutex);
    ++in_flight;
    max_in_flight = std::max(max_in_flight, in_flight);
    changed.notify_all();
    if (job.size >= 100) {
      EXPECT_EQ(workers, kJobs);
      EXPECT_EQ(in_flight, 1) << "a large file runs alone";
      large_seen = true;
    } else {
      EXPECT_EQ(workers, 1);
      if (job.path.rfind("late", 0) == 0 && !large_seen) small_after_large_started_early = true;
      // The first small files only finish once all slots are busy: proves
      // they really ran at the same time (no sleeping, no timing).
      if (job.path.rfind("early", 0) == 0) {
        changed.wait(lock, [&] { return max_in_flight == kJobs; });
      }
    }
    --in_flight;
    FileResult r;
    r.path = job.path;
    r.outcome = Outcome::kConverted;
    return r;
  };
  auto sink = [&](const FileResult& r) { EXPECT_TRUE(reported.insert(r.path).second); };

  {
    FilePipeline pipeline(kJobs, work, sink, /*large_file_bytes=*/100);
    for (int i = 0; i < kJobs; ++i) pipeline.submit({"early" + std::to_string(i), 10, false});
    pipeline.submit({"large", 1000, false});
    for (int i = 0; i < 5; ++i) pipeline.submit({"late" + std::to_string(i), 10, false});
    pipeline.report(FileResult{.path = "skipped-one"});
    pipeline.finish();
    EXPECT_EQ(reported.size(), static_cast<size_t>(kJobs + 1 + 5 + 1));
  }
  EXPECT_EQ(max_in_flight, kJobs);
  EXPECT_TRUE(large_seen);
  EXPECT_FALSE(small_after_large_started_early);
}

TEST(FilePipeline, WorkThatThrowsBecomesAFailedFile) {
  std::vector<FileResult> results;
  {
    FilePipeline pipeline(
        2, [](const FilePipeline::Job&, int) -> FileResult { throw std::bad_alloc(); },
        [&](const FileResult& r) { results.push_back(r); });
    pipeline.submit({"boom", 5000, true});
  }
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].outcome, Outcome::kFailed);
  EXPECT_EQ(results[0].path, "boom");
  EXPECT_NE(results[0].error.message.find("internal error"), std::string::npos);
}

}  // namespace
}  // namespace zephlore::cli
