// Shared by the engine's tests: deterministic inputs (the same generators as
// testdata/make_golden.py), SHA-256 and temporary files under /dev/shm.
#pragma once

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testing/files.h"

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

// SHA-256, hex digest (GLib's).
inline std::string sha256Hex(const std::vector<uint8_t>& data) {
  gchar* digest = g_compute_checksum_for_data(G_CHECKSUM_SHA256, data.data(), data.size());
  std::string out(digest);
  g_free(digest);
  return out;
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
  explicit TempFile(const std::vector<uint8_t>& content) : TempFile() {
    writeFile(path_, std::string(content.begin(), content.end()));
  }
  ~TempFile() {
    ::close(fd_);
    ::unlink(path_.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  std::vector<uint8_t> contents() const {
    const std::string bytes = readFile(path_);
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
  }

 private:
  int fd_ = -1;
  std::string path_;
};

}  // namespace zephlore::testkit
