// Round trip of one large compressible file on tmpfs: compress in place,
// expand in place, compare with the original, each stage timed, with the
// process's peak memory, which must not grow with the file's size.
//
//   ZEPHLORE_BENCH_MIB=1024 build/bin/round_trip_bench     (default 64 MiB)
//
// bench/round_trip.sh runs it at 1 GiB under /usr/bin/time -v.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_uncompressor.h"

namespace {

constexpr size_t kBlock = 65536;

uint64_t benchBytes() {
  const char* mib = std::getenv("ZEPHLORE_BENCH_MIB");
  return (mib ? std::strtoull(mib, nullptr, 10) : 64) << 20;
}

// One 64 KiB block of text: 8 KiB of words, varied by the block's
// index, repeated. Compresses well, as logs and sources do, yet every
// block differs.
void fillBlock(uint64_t index, char* out) {
  static const char* const kWords[] = {"request ", "served ", "in ", "ms ", "worker ", "queue ", "cache ",
                                       "miss ",    "hit ",    "for ", "user ", "session\n"};
  std::string chunk;
  uint32_t x = static_cast<uint32_t>(index) * 2654435761u + 1;
  while (chunk.size() < 8192) {
    x = x * 1103515245u + 12345u;
    chunk += kWords[(x >> 16) % 12];
    if ((x >> 8) % 5 == 0) chunk += std::to_string(index) + " ";
  }
  for (size_t i = 0; i < kBlock; i += chunk.size()) std::memcpy(out + i, chunk.data(), std::min(chunk.size(), kBlock - i));
}

void writeSource(const std::string& path, uint64_t size) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  std::vector<char> block(kBlock);
  for (uint64_t offset = 0, index = 0; offset < size; offset += kBlock, ++index) {
    fillBlock(index, block.data());
    size_t n = static_cast<size_t>(std::min<uint64_t>(kBlock, size - offset));
    if (write(fd, block.data(), n) != static_cast<ssize_t>(n)) throw std::runtime_error("write failed");
  }
  close(fd);
}

bool sameAsSource(const std::string& path, uint64_t size) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::vector<char> expected(kBlock), got(kBlock);
  bool same = true;
  for (uint64_t offset = 0, index = 0; same && offset < size; offset += kBlock, ++index) {
    fillBlock(index, expected.data());
    size_t n = static_cast<size_t>(std::min<uint64_t>(kBlock, size - offset));
    same = read(fd, got.data(), n) == static_cast<ssize_t>(n) && std::memcmp(got.data(), expected.data(), n) == 0;
  }
  char extra;
  same = same && read(fd, &extra, 1) == 0;
  close(fd);
  return same;
}

double peakRssMiB() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void BM_RoundTrip(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const uint64_t size = benchBytes();
  const int workers = static_cast<int>(state.range(0));
  char dir[] = "/dev/shm/zephlore-bench-XXXXXX";
  if (!mkdtemp(dir)) {
    state.SkipWithError("cannot make a folder in /dev/shm");
    return;
  }
  const std::string path = std::string(dir) + "/big.log";
  double compressSeconds = 0, expandSeconds = 0;
  int64_t saved = 0;
  for (auto _ : state) {
    state.PauseTiming();
    writeSource(path, size);
    state.ResumeTiming();

    zephlore::Error error;
    zephlore::HFSCompressionOptions options;
    options.workers = workers;
    auto start = Clock::now();
    if (!zephlore::QVHFSCompressedFileRepresentation::compressInPlacePath(zephlore::Env::system(), path, &error, &saved, nullptr, nullptr,
                                                                         options)) {
      state.SkipWithError(("compress: " + error.describe()).c_str());
      break;
    }
    auto compressed = Clock::now();
    if (!zephlore::QVHFSUncompressor::expandInPlacePath(zephlore::Env::system(), path, &error, nullptr, nullptr, false, {workers})) {
      state.SkipWithError(("expand: " + error.describe()).c_str());
      break;
    }
    auto expanded = Clock::now();
    compressSeconds += std::chrono::duration<double>(compressed - start).count();
    expandSeconds += std::chrono::duration<double>(expanded - compressed).count();

    state.PauseTiming();
    if (!sameAsSource(path, size)) {
      state.SkipWithError("the expanded file differs from the original");
      break;
    }
    state.ResumeTiming();
  }
  unlink(path.c_str());
  rmdir(dir);
  const double mib = static_cast<double>(size) / (1 << 20);
  const double runs = static_cast<double>(state.iterations());
  state.counters["MiB"] = mib;
  state.counters["compress_MiB/s"] = compressSeconds > 0 ? mib * runs / compressSeconds : 0;
  state.counters["expand_MiB/s"] = expandSeconds > 0 ? mib * runs / expandSeconds : 0;
  state.counters["saved_MiB"] = static_cast<double>(saved) / (1 << 20);
  state.counters["peak_RSS_MiB"] = peakRssMiB();
  state.SetBytesProcessed(static_cast<int64_t>(size) * state.iterations() * 2);
}
BENCHMARK(BM_RoundTrip)
    ->Arg(1)
    ->Arg(static_cast<int>(std::max(1u, std::thread::hardware_concurrency())))
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
