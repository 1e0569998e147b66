// The kernel's counters behind the helper's load gating: per-processor CPU
// time from /proc/stat, a process's own CPU time (/proc/PID/stat), the clock speed (cpufreq, else /proc/cpuinfo), and the
// bytes read and written by the machine's whole disks (/proc/diskstats over
// the /sys/block entries that have a device). Both roots are injectable so
// that tests can give a tree of their own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zephlore {

// One processor's time in clock ticks since boot.
struct CpuTicks {
  uint64_t used = 0;  // user + nice + system + irq + softirq + steal
  uint64_t idle = 0;  // idle + iowait
};

class LoadCounters {
 public:
  virtual ~LoadCounters() = default;
  // One entry per processor ("cpuN" lines); none when the file is missing,
  // holds no processor line, or a processor line is garbled.
  virtual std::optional<std::vector<CpuTicks>> cpuTicks() = 0;
  // The highest clock rate in hertz; none when neither source has it.
  virtual std::optional<uint64_t> cpuFrequencyHz() = 0;
  // The physical disks present now (names as in /sys/block).
  virtual std::vector<std::string> wholeDisks() = 0;
  // Bytes read plus written by `disks` since boot; none when the statistics
  // cannot be read or are garbled. A disk missing from them counts 0.
  virtual std::optional<uint64_t> diskBytes(const std::vector<std::string>& disks) = 0;
  // CPU time in clock ticks (user + system, all threads) that process `pid`
  // has used since it started; pid 0 is this process. None when it is gone.
  virtual std::optional<uint64_t> processTicks(int pid) { (void)pid; return std::nullopt; }
};

class KernelLoadCounters final : public LoadCounters {
 public:
  explicit KernelLoadCounters(std::string procRoot = "/proc", std::string sysRoot = "/sys");

  std::optional<std::vector<CpuTicks>> cpuTicks() override;
  std::optional<uint64_t> cpuFrequencyHz() override;
  std::vector<std::string> wholeDisks() override;
  std::optional<uint64_t> diskBytes(const std::vector<std::string>& disks) override;
  std::optional<uint64_t> processTicks(int pid) override;

 private:
  std::string procRoot_;
  std::string sysRoot_;
};

}  // namespace zephlore
