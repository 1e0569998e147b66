// Throughput of the fork-image writer (1 and N workers) and of the reader
// (range reads and full expansion) on compressible text in /dev/shm.
// Bytes per second are uncompressed bytes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "engine/compressed_fork_reader.h"
#include "engine/fork_image_writer.h"
#include "engine/fork_source.h"

namespace {

using namespace zephlore;

constexpr size_t kDataSize = 32u << 20;

// Log-like lines: about 4:1 with zlib at level 5.
const std::vector<uint8_t>& corpus() {
  static const std::vector<uint8_t> data = [] {
    static const char* const kWords[] = {"request", "served",  "cache", "miss",   "hit",   "user",  "session",
                                         "opened",  "closed",  "error", "warning", "info",  "debug", "latency",
                                         "bytes",   "timeout", "retry", "upstream"};
    std::string out;
    uint32_t x = 42;
    for (uint64_t i = 0; out.size() < kDataSize; ++i) {
      out += "2024-05-" + std::to_string(10 + i % 20) + " " + std::to_string(i * 7919 % 100000);
      for (int k = 0; k < 6; ++k) {
        x = x * 1103515245u + 12345u;
        out += ' ';
        out += kWords[(x >> 16) % (sizeof kWords / sizeof kWords[0])];
      }
      out += '\n';
    }
    return std::vector<uint8_t>(out.begin(), out.begin() + kDataSize);
  }();
  return data;
}

int shmFile() {
  char name[] = "/dev/shm/zephlore-bench-XXXXXX";
  const int fd = mkstemp(name);
  if (fd < 0) std::abort();
  unlink(name);
  return fd;
}

int sourceFile() {
  static const int fd = [] {
    const int f = shmFile();
    const auto& data = corpus();
    if (pwrite(f, data.data(), data.size(), 0) != static_cast<ssize_t>(data.size())) std::abort();
    return f;
  }();
  return fd;
}

int forkFile() {
  static const int fd = [] {
    const int f = shmFile();
    if (!writeForkImage(Env::system(), sourceFile(), kDataSize, f, ForkWriteOptions{0, false}, nullptr, nullptr)) std::abort();
    return f;
  }();
  return fd;
}

int cores() { return static_cast<int>(std::max(1u, std::thread::hardware_concurrency())); }

// The floor: bare zlib, one level-5 stream per 64 KiB block, one thread, no I/O.
void BM_BareDeflateBlocks(benchmark::State& state) {
  const auto& data = corpus();
  std::vector<uint8_t> out(compressBound(65536));
  for (auto _ : state) {
    for (size_t offset = 0; offset < kDataSize; offset += 65536) {
      uLongf size = out.size();
      compress2(out.data(), &size, data.data() + offset, 65536, 5);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDataSize));
}
BENCHMARK(BM_BareDeflateBlocks)->Unit(benchmark::kMillisecond);

void BM_WriteFork(benchmark::State& state) {
  const int source = sourceFile();
  const int fork = shmFile();
  ForkWriteOptions options;
  options.workers = state.range(0) == 0 ? cores() : static_cast<int>(state.range(0));
  options.verify = state.range(1) != 0;
  for (auto _ : state) {
    Error error;
    if (!writeForkImage(Env::system(), source, kDataSize, fork, options, nullptr, &error)) state.SkipWithError(error.message.c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDataSize));
  state.counters["workers"] = options.workers;
  close(fork);
}
// {workers (0 = every core), verify}
BENCHMARK(BM_WriteFork)->Args({1, 1})->Args({1, 0})->Args({0, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ExpandFork(benchmark::State& state) {
  const int workers = state.range(0) == 0 ? cores() : static_cast<int>(state.range(0));
  auto source = FdForkSource::open(Env::system(), forkFile(), nullptr);
  auto reader = CompressedForkReader::open(Env::system(), *source, kDataSize, nullptr);
  const int out = open("/dev/null", O_WRONLY);
  for (auto _ : state) {
    Error error;
    if (!reader->expandTo(out, workers, &error)) state.SkipWithError(error.message.c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDataSize));
  state.counters["workers"] = workers;
  close(out);
}
BENCHMARK(BM_ExpandFork)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// Sequential reads of the given size through the whole file.
void BM_RangeRead(benchmark::State& state) {
  const size_t chunk = static_cast<size_t>(state.range(0));
  auto source = FdForkSource::open(Env::system(), forkFile(), nullptr);
  auto reader = CompressedForkReader::open(Env::system(), *source, kDataSize, nullptr);
  std::vector<uint8_t> buf(chunk);
  for (auto _ : state) {
    for (uint64_t offset = 0; offset < kDataSize; offset += chunk) {
      size_t got = 0;
      if (!reader->read(offset, buf.data(), chunk, &got, nullptr)) state.SkipWithError("read failed");
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kDataSize));
}
BENCHMARK(BM_RangeRead)->Arg(4096)->Arg(1 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

// One random 4 KiB read: the cost of reaching into the middle of a file.
void BM_RandomRead4K(benchmark::State& state) {
  auto source = FdForkSource::open(Env::system(), forkFile(), nullptr);
  auto reader = CompressedForkReader::open(Env::system(), *source, kDataSize, nullptr);
  std::vector<uint8_t> buf(4096);
  uint32_t x = 7;
  for (auto _ : state) {
    x = x * 1664525u + 1013904223u;
    size_t got = 0;
    reader->read(x % (kDataSize - 4096), buf.data(), 4096, &got, nullptr);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 4096));
}
BENCHMARK(BM_RandomRead4K)->Unit(benchmark::kMicrosecond);

}  // namespace
