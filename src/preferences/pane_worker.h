// The window's one thread for the pane model. Reading the helper's status
// or starting a helper can take seconds; on the main loop that would freeze
// the window. Calls run here one at a time, in the order asked (a write and
// the re-read after it stay in that order, and the model never sees two
// threads), and each result is handed back to the main loop.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "pane/pane_model.h"

namespace zephlore::preferences {

class PaneWorker {
 public:
  // Reads may be dropped when the window goes; what the user asked for is not.
  enum class Kind { kRead, kAction };

  // `toMainLoop` runs a function on the main loop, later, from any thread.
  PaneWorker(pane::PaneModel& model, pane::Deliver toMainLoop);
  ~PaneWorker();
  PaneWorker(const PaneWorker&) = delete;
  PaneWorker& operator=(const PaneWorker&) = delete;

  // Main loop only. Runs `call` on the worker, then `onMainLoop` with its
  // result on the main loop, unless the worker was stopped by then.
  template <typename T>
  void run(std::function<T(pane::PaneModel&)> call, std::function<void(T)> onMainLoop, Kind kind = Kind::kRead) {
    post(
        [call = std::move(call), onMainLoop = std::move(onMainLoop)](pane::PaneModel& model) mutable {
          return std::function<void()>(
              [onMainLoop = std::move(onMainLoop), result = call(model)]() mutable { onMainLoop(std::move(result)); });
        },
        kind);
  }

  // Main loop only: calls asked for whose results have not reached it yet.
  std::size_t pending() const { return pending_; }

  // Main loop only. Drops the queued reads, runs the queued actions, waits
  // for the call in flight and hands no result over any more.
  void stop();

 private:
  // Runs on the worker; returns what the main loop does with the result.
  using Job = std::function<std::function<void()>(pane::PaneModel&)>;
  struct Queued {
    Job job;
    Kind kind;
  };

  void post(Job job, Kind kind);
  void loop();

  pane::PaneModel& model_;
  const pane::Deliver toMainLoop_;
  // Read and written on the main loop only; the worker passes it on.
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::size_t pending_ = 0;  // main loop only

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Queued> queue_;  // under mutex_
  bool stopping_ = false;     // under mutex_
  std::thread thread_;
};

}  // namespace zephlore::preferences
