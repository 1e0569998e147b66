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

}  // namespace zephlore::testkit
