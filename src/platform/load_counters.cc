#include "platform/load_counters.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace zephlore {
namespace {

// Reads the whole file; none when it cannot be opened.
std::optional<std::string> readText(const std::string& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Unsigned decimal fields after the first word; stops at the first word that
// is not a number and tells by `clean` whether the line ended there.
std::vector<uint64_t> numbersAfterName(const std::string& line, bool* clean) {
  std::istringstream words(line);
  std::string word;
  words >> word;
  std::vector<uint64_t> numbers;
  *clean = true;
  while (words >> word) {
    if (word.empty() || !std::all_of(word.begin(), word.end(), ::isdigit)) {
      *clean = false;
      break;
    }
    try {
      numbers.push_back(std::stoull(word));
    } catch (const std::exception&) {
      *clean = false;
      break;
    }
  }
  return numbers;
}

}  // namespace

KernelLoadCounters::KernelLoadCounters(std::string procRoot, std::string sysRoot)
    : procRoot_(std::move(procRoot)), sysRoot_(std::move(sysRoot)) {}

std::optional<std::vector<CpuTicks>> KernelLoadCounters::cpuTicks() {
  std::optional<std::string> text = readText(procRoot_ + "/stat");
  if (!text) return std::nullopt;
  std::vector<CpuTicks> cpus;
  std::istringstream lines(*text);
  std::string line;
  while (std::getline(lines, line)) {
    // "cpu " is the sum over all processors; "cpuN" are the processors.
    if (!startsWith(line, "cpu") || line.size() < 4 || !isdigit(static_cast<unsigned char>(line[3]))) continue;
    bool clean = false;
    std::vector<uint64_t> f = numbersAfterName(line, &clean);
    // user nice system idle are always there; later kernels add the rest.
    if (!clean || f.size() < 4) return std::nullopt;
    f.resize(std::max<size_t>(f.size(), 8), 0);
    cpus.push_back(CpuTicks{f[0] + f[1] + f[2] + f[5] + f[6] + f[7], f[3] + f[4]});
  }
  if (cpus.empty()) return std::nullopt;
  return cpus;
}

std::optional<uint64_t> KernelLoadCounters::cpuFrequencyHz() {
  // cpufreq gives kilohertz; virtual machines often lack it.
  if (std::optional<std::string> khz = readText(sysRoot_ + "/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq")) {
    try {
      uint64_t value = std::stoull(*khz);
      if (value > 0) return value * 1000;
    } catch (const std::exception&) {
    }
  }
  std::optional<std::string> info = readText(procRoot_ + "/cpuinfo");
  if (!info) return std::nullopt;
  std::istringstream lines(*info);
  std::string line;
  while (std::getline(lines, line)) {
    if (!startsWith(line, "cpu MHz")) continue;
    size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    try {
      double mhz = std::stod(line.substr(colon + 1));
      if (mhz > 0 && std::isfinite(mhz)) return static_cast<uint64_t>(std::llround(mhz * 1e6));
    } catch (const std::exception&) {
    }
  }
  return std::nullopt;
}

std::vector<std::string> KernelLoadCounters::wholeDisks() {
  std::vector<std::string> disks;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(sysRoot_ + "/block", ec)) {
    const std::string name = entry.path().filename().string();
    // Virtual block devices stack on real ones (or on memory): counting them
    // would count the same traffic twice or count none at all.
    if (startsWith(name, "loop") || startsWith(name, "ram") || startsWith(name, "zram") ||
        startsWith(name, "dm-") || startsWith(name, "md") || startsWith(name, "nbd")) {
      continue;
    }
    std::error_code exists_ec;
    if (!std::filesystem::exists(entry.path() / "device", exists_ec)) continue;
    disks.push_back(name);
  }
  std::sort(disks.begin(), disks.end());
  return disks;
}

std::optional<uint64_t> KernelLoadCounters::diskBytes(const std::vector<std::string>& disks) {
  std::optional<std::string> text = readText(procRoot_ + "/diskstats");
  if (!text) return std::nullopt;
  uint64_t sectors = 0;
  bool any_line = false;
  std::istringstream lines(*text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    std::istringstream words(line);
    std::string major, minor, name;
    if (!(words >> major >> minor >> name)) return std::nullopt;
    any_line = true;
    if (std::find(disks.begin(), disks.end(), name) == disks.end()) continue;
    // reads completed, merged, sectors read, ms, writes completed, merged, sectors written
    uint64_t field[7];
    for (uint64_t& value : field) {
      std::string word;
      if (!(words >> word) || !std::all_of(word.begin(), word.end(), ::isdigit)) return std::nullopt;
      try {
        value = std::stoull(word);
      } catch (const std::exception&) {
        return std::nullopt;
      }
    }
    sectors += field[2] + field[6];
  }
  if (!any_line) return std::nullopt;
  // The kernel counts in 512-byte sectors whatever the disk's own size.
  return sectors * 512;
}

std::optional<uint64_t> KernelLoadCounters::processTicks(int pid) {
  const std::string process = pid == 0 ? std::string("self") : std::to_string(pid);
  std::optional<std::string> text = readText(procRoot_ + "/" + process + "/stat");
  if (!text) return std::nullopt;
  // The name in parentheses may hold spaces and parentheses: fields are
  // counted after the last ')'. utime and stime are fields 14 and 15.
  const size_t close = text->rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream words(text->substr(close + 1));
  std::string word;
  uint64_t ticks = 0;
  for (int field = 3; field <= 15 && words >> word; ++field) {
    if (field < 14) continue;
    if (word.empty() || !std::all_of(word.begin(), word.end(), ::isdigit)) return std::nullopt;
    try {
      ticks += std::stoull(word);
    } catch (const std::exception&) {
      return std::nullopt;
    }
    if (field == 15) return ticks;
  }
  return std::nullopt;
}

}  // namespace zephlore
