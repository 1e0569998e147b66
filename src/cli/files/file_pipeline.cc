#include "cli/files/file_pipeline.h"

#include <exception>

namespace zephlore::cli {

FilePipeline::FilePipeline(int jobs, Work work, Sink sink, uint64_t large_file_bytes)
    : jobs_(jobs < 1 ? 1 : jobs),
      large_file_bytes_(large_file_bytes),
      work_(std::move(work)),
      sink_(std::move(sink)),
      free_slots_(jobs_) {
  threads_.reserve(jobs_);
  for (int i = 0; i < jobs_; ++i) threads_.emplace_back([this] { workerLoop(); });
}

FilePipeline::~FilePipeline() {
  finish();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
  }
  task_ready_.notify_all();
  for (std::thread& t : threads_) t.join();
}

bool FilePipeline::submit(Job job, const std::atomic<bool>* stop) {
  const int workers = workersFor(job.size);
  std::unique_lock<std::mutex> lock(mutex_);
  slots_freed_.wait(lock, [&] { return free_slots_ >= workers; });
  if (stop && stop->load()) return false;
  free_slots_ -= workers;
  ++in_flight_;
  tasks_.push_back({std::move(job), workers});
  lock.unlock();
  task_ready_.notify_one();
  return true;
}

void FilePipeline::report(const FileResult& result) {
  std::lock_guard<std::mutex> lock(sink_mutex_);
  sink_(result);
}

void FilePipeline::finish() {
  std::unique_lock<std::mutex> lock(mutex_);
  slots_freed_.wait(lock, [&] { return in_flight_ == 0; });
}

void FilePipeline::workerLoop() {
  for (;;) {
    std::unique_lock<std::mutex> lock(mutex_);
    task_ready_.wait(lock, [&] { return closing_ || !tasks_.empty(); });
    if (tasks_.empty()) return;  // closing
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();

    FileResult result;
    try {
      result = work_(task.job, task.workers);
    } catch (const std::exception& e) {
      Error error;
      error.domain = kPosixErrorDomain;
      error.code = 0;
      error.message = std::string("internal error: ") + e.what();
      result = failed(task.job.path, error, task.job.size, task.job.named);
    }
    report(result);

    lock.lock();
    free_slots_ += task.workers;
    --in_flight_;
    lock.unlock();
    slots_freed_.notify_all();
  }
}

}  // namespace zephlore::cli
