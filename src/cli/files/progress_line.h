// The one-line progress display of a run on a terminal: files and bytes done
// of the total, the rate and the time left, redrawn in place (carriage
// return, clear to end of line) a few times a second, never scrolling.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "base/clock.h"

namespace zephlore::cli {

struct ProgressSnapshot {
  uint64_t files_done = 0;
  uint64_t bytes_done = 0;
  uint64_t files_total = 0;  // counted so far
  uint64_t bytes_total = 0;
  bool totals_final = false;  // the count has finished
  Duration elapsed{0};
};

// The text of the line, at most `width` columns (without the escapes).
std::string formatProgress(const ProgressSnapshot& snapshot, int width);

// "1,234,567"
std::string groupedNumber(uint64_t n);
// "1:02:03" or "2:03"
std::string clockDuration(double seconds);

class ProgressLine {
 public:
  // Draws on `out` (a terminal) until stop(). The counts come from the
  // setters below, called from any thread.
  ProgressLine(FILE* out, Clock& clock);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void start();
  // Stops redrawing and erases the line.
  void stop();

  void addDone(uint64_t files, uint64_t bytes) {
    files_done_.fetch_add(files, std::memory_order_relaxed);
    bytes_done_.fetch_add(bytes, std::memory_order_relaxed);
  }
  void addTotal(uint64_t files, uint64_t bytes) {
    files_total_.fetch_add(files, std::memory_order_relaxed);
    bytes_total_.fetch_add(bytes, std::memory_order_relaxed);
  }
  void setTotalsFinal() { totals_final_.store(true, std::memory_order_relaxed); }

  // Writes `text` (whole lines) to `stream` with the progress line out of the
  // way: erased first, redrawn on the next tick.
  void printAbove(FILE* stream, const std::string& text);

 private:
  void run();
  void drawLocked();
  void eraseLocked();

  FILE* out_;
  Clock& clock_;
  TimePoint started_{};
  std::atomic<uint64_t> files_done_{0}, bytes_done_{0}, files_total_{0}, bytes_total_{0};
  std::atomic<bool> totals_final_{false};

  std::mutex mutex_;  // guards the terminal and the fields below
  std::condition_variable wake_;
  bool stopping_ = false;
  bool drawn_ = false;
  std::thread thread_;
};

}  // namespace zephlore::cli
