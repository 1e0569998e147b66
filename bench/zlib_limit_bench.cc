// The machine's limit for the compressed format: how fast one thread turns
// 64 KiB blocks into level-5 zlib streams, with zlib alone (no file I/O, no
// engine). bench/compare.sh multiplies it by the number of cores.
//
// The data is the file named by ZEPHLORE_BENCH_CORPUS (the benchmark's
// corpus, up to 1 GiB, read whole so that every part of it counts), else
// 64 MiB of generated text. Each run goes through the data about once.
#include <benchmark/benchmark.h>
#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t kBlock = 65536;
constexpr size_t kGeneratedBytes = 64u << 20;
constexpr size_t kCorpusLimit = 1u << 30;

const std::vector<unsigned char>& sample() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> bytes;
    if (const char* path = std::getenv("ZEPHLORE_BENCH_CORPUS")) {
      if (FILE* f = std::fopen(path, "rb")) {
        std::fseek(f, 0, SEEK_END);
        const long size = std::ftell(f);
        std::fseek(f, 0, SEEK_SET);
        bytes.resize(size > 0 ? std::min<size_t>(static_cast<size_t>(size), kCorpusLimit) : 0);
        bytes.resize(std::fread(bytes.data(), 1, bytes.size(), f));
        std::fclose(f);
      }
    }
    if (bytes.empty()) {
      static const char* const kWords[] = {"int ", "return ", "struct ", "const ", "{\n", "}\n",
                                           "static ", "void ", "char* ", "size_t ", "if (", ") "};
      std::mt19937 rng(42);
      while (bytes.size() < kGeneratedBytes) {
        const char* w = kWords[rng() % 12];
        bytes.insert(bytes.end(), w, w + std::char_traits<char>::length(w));
      }
    }
    bytes.resize(bytes.size() / kBlock * kBlock);
    return bytes;
  }();
  return data;
}

// One block into one level-5 stream (the same parameters as compress2 at
// level 5), the stream reset first.
void deflateBlock(z_stream& z, const unsigned char* block, std::vector<unsigned char>& out) {
  deflateReset(&z);
  z.next_in = const_cast<unsigned char*>(block);
  z.avail_in = kBlock;
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
}

// One stream per block, each block alone.
void BM_Level5Blocks(benchmark::State& state) {
  const auto& data = sample();
  std::vector<unsigned char> out(compressBound(kBlock));
  z_stream z{};
  deflateInit(&z, 5);
  size_t offset = 0;
  for (auto _ : state) {
    deflateBlock(z, data.data() + offset, out);
    benchmark::DoNotOptimize(z.total_out);
    offset = (offset + kBlock) % data.size();
  }
  deflateEnd(&z);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlock);
}
BENCHMARK(BM_Level5Blocks)->MinTime(4.0);

// The same, with each stream inflated again by libdeflate and compared, as
// the engine checks every block: shows what verification costs.
void BM_Level5BlocksWithInflate(benchmark::State& state) {
  const auto& data = sample();
  std::vector<unsigned char> out(compressBound(kBlock));
  std::vector<unsigned char> back(kBlock);
  z_stream z{};
  deflateInit(&z, 5);
  libdeflate_decompressor* inflater = libdeflate_alloc_decompressor();
  size_t offset = 0;
  for (auto _ : state) {
    deflateBlock(z, data.data() + offset, out);
    size_t produced = 0;
    libdeflate_zlib_decompress(inflater, out.data(), z.total_out, back.data(), kBlock, &produced);
    benchmark::DoNotOptimize(std::memcmp(back.data(), data.data() + offset, produced));
    offset = (offset + kBlock) % data.size();
  }
  deflateEnd(&z);
  libdeflate_free_decompressor(inflater);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBlock);
}
BENCHMARK(BM_Level5BlocksWithInflate)->MinTime(4.0);

}  // namespace
