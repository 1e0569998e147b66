// Shared by the engine's tests: deterministic inputs (the same generators as
// testdata/make_golden.py), SHA-256, temporary files under /dev/shm and the
// path of the shared test data beside the repository.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace zephlore::testkit {

// Lines "<number> <word> <word> <word>\n", words picked by a 32-bit LCG.
inline std::vector<uint8_t> deterministicText(size_t n) {
  static const char* const kWords[16] = {"alpha", "bravo", "charlie", "delta", "echo",   "foxtrot", "golf",  "hotel",
                                         "india", "juliet", "kilo",    "lima",  "mike", "november", "oscar", "papa"};
  std::string out;
  out.reserve(n + 64);
  uint32_t x = 1;
  for (uint64_t i = 0; out.size() < n; ++i) {
    out += std::to_string(i);
    for (int k = 0; k < 3; ++k) {
      x = x * 1103515245u + 12345u;
      out += ' ';
      out += kWords[(x >> 16) & 15];
    }
    out += '\n';
  }
  return std::vector<uint8_t>(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(n));
}

// High bytes of a 32-bit LCG: data that deflate cannot shrink.
inline std::vector<uint8_t> deterministicNoise(size_t n, uint32_t seed) {
  std::vector<uint8_t> out(n);
  uint32_t x = seed;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1664525u + 1013904223u;
    out[i] = static_cast<uint8_t>(x >> 24);
  }
  return out;
}

inline std::string toHex(const uint8_t* data, size_t n) {
  static const char* const kDigits = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 15];
  }
  return out;
}

// A plain SHA-256 (FIPS 180-4), hex digest.
inline std::string sha256Hex(const std::vector<uint8_t>& data) {
  static const uint32_t k[64] = {
      0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5, 0xd807aa98,
      0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786,
      0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8,
      0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13,
      0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819,
      0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a,
      0x5b9cca4f, 0x682e6ff3, 0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
      0xc67178f2};
  uint32_t h[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  auto rotr = [](uint32_t v, int s) { return (v >> s) | (v << (32 - s)); };
  std::vector<uint8_t> msg(data);
  const uint64_t bits = static_cast<uint64_t>(data.size()) * 8;
  msg.push_back(0x80);
  while (msg.size() % 64 != 56) msg.push_back(0);
  for (int i = 7; i >= 0; --i) msg.push_back(static_cast<uint8_t>(bits >> (8 * i)));
  for (size_t chunk = 0; chunk < msg.size(); chunk += 64) {
    uint32_t w[64];
    for (int i = 0; i < 16; ++i) {
      const uint8_t* p = &msg[chunk + 4 * i];
      w[i] = uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
    }
    for (int i = 16; i < 64; ++i) {
      const uint32_t s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
      const uint32_t s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
      w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4], f = h[5], g = h[6], hh = h[7];
    for (int i = 0; i < 64; ++i) {
      const uint32_t t1 = hh + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) + k[i] + w[i];
      const uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
      hh = g;
      g = f;
      f = e;
      e = d + t1;
      d = c;
      c = b;
      b = a;
      a = t1 + t2;
    }
    h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e, h[5] += f, h[6] += g, h[7] += hh;
  }
  uint8_t digest[32];
  for (int i = 0; i < 8; ++i) {
    for (int j = 0; j < 4; ++j) digest[4 * i + j] = static_cast<uint8_t>(h[i] >> (24 - 8 * j));
  }
  return toHex(digest, 32);
}

// A file under /dev/shm, open read-write, removed when the object goes.
class TempFile {
 public:
  TempFile() {
    char name[] = "/dev/shm/zephlore-engine-test-XXXXXX";
    fd_ = mkstemp(name);
    if (fd_ < 0) std::abort();
    path_ = name;
  }
  explicit TempFile(const std::vector<uint8_t>& content) : TempFile() { write(content); }
  ~TempFile() {
    ::close(fd_);
    ::unlink(path_.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  int fd() const { return fd_; }
  const std::string& path() const { return path_; }

  void write(const std::vector<uint8_t>& content) {
    if (ftruncate(fd_, 0) != 0) std::abort();
    size_t done = 0;
    while (done < content.size()) {
      const ssize_t w = ::pwrite(fd_, content.data() + done, content.size() - done, static_cast<off_t>(done));
      if (w <= 0) std::abort();
      done += static_cast<size_t>(w);
    }
  }

  std::vector<uint8_t> contents() const {
    struct stat st;
    if (fstat(fd_, &st) != 0) std::abort();
    std::vector<uint8_t> out(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < out.size()) {
      const ssize_t r = ::pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(done));
      if (r <= 0) std::abort();
      done += static_cast<size_t>(r);
    }
    return out;
  }

 private:
  int fd_ = -1;
  std::string path_;
};

inline std::vector<uint8_t> readWholeFile(const std::string& path) {
  std::vector<uint8_t> out;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return out;
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
  std::fclose(f);
  return out;
}

// The shared test data lives beside the repository (../shared/testdata).
inline std::string sharedTestDataDir(const std::string& name) {
  std::string dir = std::string(ZEPHLORE_SOURCE_DIR) + "/../shared/testdata/" + name;
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return {};
  return dir;
}

}  // namespace zephlore::testkit
