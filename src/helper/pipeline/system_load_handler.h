// KRSystemLoadHandler: how busy the machine is, as two fractions the
// compressor reads before each file. The CPU load is the share of processor
// time spent working over the last 2 s by programs other than the helper and
// its views (the gate yields to others; counting its own compression would
// make it hold itself back); the disk load is the last 2 s of disk
// traffic relative to the busiest 2 s seen since start (never below 10000
// bytes). Sampling runs on the main run loop; the processors and the disks
// are sampled apart, and a counter that cannot be read ends its own sampling
// for good, leaving its load at 0.0 so that compression is never held back
// by a broken reading.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/run_loop.h"
#include "platform/load_counters.h"

namespace zephlore {

class KRSystemLoadHandler {
 public:
  static constexpr double kSamplingInterval = 2.0;
  static constexpr uint64_t kMinimumMaxDiskActivity = 10000;

  // Schedules `ready` on `loop` at once and returns.
  KRSystemLoadHandler(std::unique_ptr<LoadCounters> counters, RunLoop& loop);
  virtual ~KRSystemLoadHandler();
  KRSystemLoadHandler(const KRSystemLoadHandler&) = delete;
  KRSystemLoadHandler& operator=(const KRSystemLoadHandler&) = delete;

  // 0.0 .. 1.0; 0.0 until the first sample. Any thread.
  virtual float currentCPULoad() const { return cpuLoad_.load(std::memory_order_relaxed); }
  virtual float currentDiskLoad() const { return diskLoad_.load(std::memory_order_relaxed); }

  // Processes whose CPU time counts as the helper's own, as this process's
  // does (its views). Any thread; from the next sample on.
  void setCompanionProcesses(std::vector<int> pids);

  // For display; set by the first sample (main thread). "unknown" where the
  // system does not tell (the loads are sampled all the same).
  const std::string& clockSpeed() const { return clockSpeed_; }
  int cpuCount() const { return cpuCount_; }
  uint64_t maxDiskActivityInAPeriod() const { return maxDiskActivity_; }

  // "1000MHz" up to 1 GHz, "2.40GHz" above.
  static std::string clockSpeedString(uint64_t hertz);

 protected:
  // For test doubles that answer fixed loads: samples nothing.
  KRSystemLoadHandler();

 private:
  void ready();
  void startCPUSampling();
  void startDiskSampling();
  void calculateCurrentCPULoad();
  void calculateCurrentDiskLoad();
  // Ticks this process and its companions used since the last call; the
  // first call, and a process first seen, count 0.
  uint64_t ownTicksSinceLastSample();

  std::unique_ptr<LoadCounters> counters_;
  RunLoop* loop_ = nullptr;
  std::atomic<float> cpuLoad_{0.0f};
  std::atomic<float> diskLoad_{0.0f};
  std::string clockSpeed_;
  int cpuCount_ = 0;
  std::vector<CpuTicks> priorCPUTicks_;
  std::mutex companionsLock_;
  std::vector<int> companions_;
  std::map<int, uint64_t> priorOwnTicks_;  // by pid, 0 for this process
  // Disks attached later are not counted: the list is made once.
  std::vector<std::string> drivelist_;
  uint64_t previousDiskActivity_ = 0;
  uint64_t maxDiskActivity_ = kMinimumMaxDiskActivity;
  uint64_t currentDiskActivity_ = 0;
};

}  // namespace zephlore
