// Runs the per-file work of a tree on several threads, so that reading,
// compressing and writing of different files overlap.
//
// The run has `jobs` worker slots. A small file takes one slot and is worked
// on by one engine thread; a large file takes every slot and gets that many
// engine threads for its blocks, so that it finishes fast without starving
// the machine. Files start in the order they were submitted: a large file
// waits until the files before it have finished, and nothing overtakes it.
// At most `jobs` files are in flight at any time, so memory does not grow
// with the size of the tree.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli/files/file_outcome.h"

namespace zephlore::cli {

class FilePipeline {
 public:
  struct Job {
    std::string path;
    uint64_t size = 0;
    bool named = false;
  };
  // The work on one file, with the number of engine threads it may use.
  using Work = std::function<FileResult(const Job& job, int workers)>;
  // Receives every result, one at a time, in the order they are finished.
  using Sink = std::function<void(const FileResult& result)>;

  // Files of at least this many bytes get every slot.
  static constexpr uint64_t kLargeFileBytes = 8ull << 20;

  FilePipeline(int jobs, Work work, Sink sink, uint64_t large_file_bytes = kLargeFileBytes);
  ~FilePipeline();
  FilePipeline(const FilePipeline&) = delete;
  FilePipeline& operator=(const FilePipeline&) = delete;

  // The engine threads a file of `size` bytes gets.
  int workersFor(uint64_t size) const { return size >= large_file_bytes_ ? jobs_ : 1; }

  // Queues a file. Blocks while the slots it needs are busy. When `stop`
  // became true meanwhile, the file is dropped (left alone, not reported)
  // and the result is false.
  bool submit(Job job, const std::atomic<bool>* stop = nullptr);
  // Passes a result decided without work (a skip) to the sink, in turn with
  // the workers' results.
  void report(const FileResult& result);
  // Waits until every submitted file has been finished and reported.
  void finish();

 private:
  struct Task {
    Job job;
    int workers;
  };
  void workerLoop();

  const int jobs_;
  const uint64_t large_file_bytes_;
  Work work_;
  Sink sink_;

  std::mutex mutex_;  // guards the fields below
  std::condition_variable slots_freed_;
  std::condition_variable task_ready_;
  int free_slots_;
  int in_flight_ = 0;
  bool closing_ = false;
  std::deque<Task> tasks_;
  std::vector<std::thread> threads_;

  std::mutex sink_mutex_;  // one result at a time
};

}  // namespace zephlore::cli
