#include "helper/pipeline/system_load_handler.h"

#include <algorithm>
#include <cstdio>

#include "base/log.h"

namespace zephlore {
namespace {

constexpr const char* kCpuTimerKey = "calculateCurrentCPULoad";
constexpr const char* kDiskTimerKey = "calculateCurrentDiskLoad";

}  // namespace

KRSystemLoadHandler::KRSystemLoadHandler() = default;

KRSystemLoadHandler::KRSystemLoadHandler(std::unique_ptr<LoadCounters> counters, RunLoop& loop)
    : counters_(std::move(counters)), loop_(&loop) {
  loop_->performAfterDelay(this, kCpuTimerKey, Duration(0), [this] { ready(); });
}

KRSystemLoadHandler::~KRSystemLoadHandler() {
  if (!loop_) return;
  loop_->cancelPerform(this, kCpuTimerKey);
  loop_->cancelPerform(this, kDiskTimerKey);
}

std::string KRSystemLoadHandler::clockSpeedString(uint64_t hertz) {
  char text[64];
  if (hertz <= 1'000'000'000) {
    std::snprintf(text, sizeof text, "%lluMHz", static_cast<unsigned long long>(hertz / 1'000'000));
  } else {
    std::snprintf(text, sizeof text, "%.2fGHz", static_cast<double>(static_cast<float>(hertz) / 1e9f));
  }
  return text;
}

void KRSystemLoadHandler::ready() {
  // The clock speed is only shown: many virtual machines and ARM boards do
  // not report it, and the loads are measured without it.
  if (std::optional<uint64_t> hertz = counters_->cpuFrequencyHz()) {
    clockSpeed_ = clockSpeedString(*hertz);
  } else {
    clockSpeed_ = "unknown";
  }
  startCPUSampling();
  startDiskSampling();
}

void KRSystemLoadHandler::startCPUSampling() {
  std::optional<std::vector<CpuTicks>> ticks = counters_->cpuTicks();
  if (!ticks) {
    KRLog("Not sampling CPU load: the processors' counters cannot be read");
    return;
  }
  cpuCount_ = static_cast<int>(ticks->size());
  priorCPUTicks_ = std::move(*ticks);
  ownTicksSinceLastSample();
  calculateCurrentCPULoad();
}

void KRSystemLoadHandler::startDiskSampling() {
  drivelist_ = counters_->wholeDisks();
  maxDiskActivity_ = kMinimumMaxDiskActivity;
  std::optional<uint64_t> bytes = counters_->diskBytes(drivelist_);
  if (!bytes) {
    KRLog("Not sampling disk load: the disk statistics cannot be read");
    return;
  }
  previousDiskActivity_ = *bytes;
  calculateCurrentDiskLoad();
}

void KRSystemLoadHandler::calculateCurrentCPULoad() {
  std::optional<std::vector<CpuTicks>> ticks = counters_->cpuTicks();
  if (!ticks || ticks->size() != priorCPUTicks_.size()) {
    KRLog("Stopped sampling CPU load: the processors' counters cannot be read");
    cpuLoad_.store(0.0f, std::memory_order_relaxed);
    return;
  }
  double sum = 0.0;
  uint64_t allTicks = 0;
  for (size_t i = 0; i < ticks->size(); ++i) {
    // Unsigned differences survive a counter that wrapped.
    const uint64_t used = (*ticks)[i].used - priorCPUTicks_[i].used;
    const uint64_t idle = (*ticks)[i].idle - priorCPUTicks_[i].idle;
    const uint64_t total = used + idle;
    allTicks += total;
    if (total != 0) sum += static_cast<double>(used) / static_cast<double>(total);
  }
  double load = sum / static_cast<double>(ticks->size());
  // The helper's own share of all processors' time is taken out.
  const uint64_t own = ownTicksSinceLastSample();
  if (allTicks != 0) load = std::max(0.0, load - static_cast<double>(own) / static_cast<double>(allTicks));
  cpuLoad_.store(static_cast<float>(load), std::memory_order_relaxed);
  priorCPUTicks_ = std::move(*ticks);
  loop_->performAfterDelay(this, kCpuTimerKey, seconds(kSamplingInterval), [this] { calculateCurrentCPULoad(); });
}

void KRSystemLoadHandler::setCompanionProcesses(std::vector<int> pids) {
  std::lock_guard lock(companionsLock_);
  companions_ = std::move(pids);
}

uint64_t KRSystemLoadHandler::ownTicksSinceLastSample() {
  std::vector<int> pids{0};
  {
    std::lock_guard lock(companionsLock_);
    pids.insert(pids.end(), companions_.begin(), companions_.end());
  }
  // A process gone or new since the last sample is left out of this one: its
  // time before it was first seen is not known.
  std::map<int, uint64_t> now;
  uint64_t own = 0;
  for (int pid : pids) {
    std::optional<uint64_t> ticks = counters_->processTicks(pid);
    if (!ticks) continue;
    now[pid] = *ticks;
    auto prior = priorOwnTicks_.find(pid);
    if (prior != priorOwnTicks_.end() && *ticks >= prior->second) own += *ticks - prior->second;
  }
  priorOwnTicks_ = std::move(now);
  return own;
}

void KRSystemLoadHandler::calculateCurrentDiskLoad() {
  std::optional<uint64_t> first = counters_->diskBytes(drivelist_);
  std::optional<uint64_t> second = first ? counters_->diskBytes(drivelist_) : std::nullopt;
  if (!second) {
    KRLog("Stopped sampling disk load: the disk statistics cannot be read");
    diskLoad_.store(0.0f, std::memory_order_relaxed);
    return;
  }
  // A disk that went away makes the sum shrink: that period counts as quiet
  // rather than as an enormous burst that would raise the maximum for good.
  currentDiskActivity_ = *second >= previousDiskActivity_ ? *second - previousDiskActivity_ : 0;
  if (currentDiskActivity_ > maxDiskActivity_) maxDiskActivity_ = currentDiskActivity_;
  diskLoad_.store(static_cast<float>(currentDiskActivity_) / static_cast<float>(maxDiskActivity_),
                  std::memory_order_relaxed);
  previousDiskActivity_ = *first;
  loop_->performAfterDelay(this, kDiskTimerKey, seconds(kSamplingInterval), [this] { calculateCurrentDiskLoad(); });
}

}  // namespace zephlore
