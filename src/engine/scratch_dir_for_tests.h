// Test support: a scratch folder on /dev/shm (tmpfs holds 64 KiB attribute
// values, so compressed files work there), removed with its content at the
// end; file helpers that throw on failure; deterministic test data.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>

namespace zephlore::testing {

class ScratchDir {
 public:
  explicit ScratchDir(const std::string& base = "/dev/shm") : path_(base + "/zephlore-test-XXXXXX") {
    if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp " + path_);
  }
  ~ScratchDir() {
    auto remove = [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); };
    nftw(path_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Keeps the engine's private temporary files ($XDG_RUNTIME_DIR) in a scratch
// folder rather than the real home folder while alive.
class ScopedRuntimeDir {
 public:
  ScopedRuntimeDir() : old_(getenv("XDG_RUNTIME_DIR") ? getenv("XDG_RUNTIME_DIR") : "") {
    setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), 1);
  }
  ~ScopedRuntimeDir() { old_.empty() ? unsetenv("XDG_RUNTIME_DIR") : setenv("XDG_RUNTIME_DIR", old_.c_str(), 1); }

 private:
  ScratchDir dir_;
  std::string old_;
};

inline void writeFile(const std::string& path, const std::string& data, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd == -1) throw std::runtime_error("open " + path);
  bool ok = write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
  close(fd);
  if (!ok) throw std::runtime_error("write " + path);
}

// Without touching the access time (tests compare it).
inline std::string readFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME);
  if (fd == -1 && errno == EPERM) fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) throw std::runtime_error("open " + path);
  std::string data;
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) data.append(buf, static_cast<size_t>(n));
  close(fd);
  if (n < 0) throw std::runtime_error("read " + path);
  return data;
}

// Words from a small vocabulary in a seeded order: compresses well, not trivially.
inline std::string compressibleData(size_t size, uint32_t seed = 1) {
  static const char* const kWords[] = {"alpha ", "bravo ", "charlie ", "delta ", "echo ",
                                       "foxtrot ", "golf ", "hotel ", "india\n", "juliet "};
  std::mt19937 rng(seed);
  std::string data;
  while (data.size() < size) data += kWords[rng() % 10];
  data.resize(size);
  return data;
}

// Bytes that zlib cannot shrink.
inline std::string randomData(size_t size, uint32_t seed = 7) {
  std::mt19937 rng(seed);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(rng());
  return data;
}

}  // namespace zephlore::testing
