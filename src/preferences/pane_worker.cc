#include "preferences/pane_worker.h"

#include <vector>

namespace zephlore::preferences {

PaneWorker::PaneWorker(pane::PaneModel& model, pane::Deliver toMainLoop)
    : model_(model), toMainLoop_(std::move(toMainLoop)), thread_([this] { loop(); }) {}

PaneWorker::~PaneWorker() { stop(); }

void PaneWorker::post(Job job, Kind kind) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    queue_.push_back({std::move(job), kind});
  }
  ++pending_;
  wake_.notify_one();
}

void PaneWorker::stop() {
  if (!thread_.joinable()) return;
  *alive_ = false;
  {
    std::vector<Queued> dropped;  // let go of outside the lock, on this thread
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    std::deque<Queued> kept;
    for (Queued& queued : queue_) {
      if (queued.kind == Kind::kAction) {
        kept.push_back(std::move(queued));
      } else {
        dropped.push_back(std::move(queued));
      }
    }
    queue_ = std::move(kept);
  }
  wake_.notify_one();
  thread_.join();
}

void PaneWorker::loop() {
  for (;;) {
    Queued next;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      next = std::move(queue_.front());
      queue_.pop_front();
    }
    std::function<void()> done = next.job(model_);
    next.job = nullptr;
    // `alive` is read on the main loop only; the worker merely carries it.
    toMainLoop_([this, alive = alive_, done = std::move(done)] {
      if (!*alive) return;
      --pending_;
      done();
    });
  }
}

}  // namespace zephlore::preferences
