// Test support: a private scratch folder on /dev/shm (tmpfs holds 64 KiB
// attribute values, so compressed files work there), removed with everything
// in it when the test ends, and small file helpers that fail the test loudly.
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
  explicit ScratchDir(const std::string& base = "/dev/shm") {
    std::string templ = base + "/zephlore-test-XXXXXX";
    if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp " + templ);
    path_ = templ;
  }
  ~ScratchDir() {
    nftw(
        path_.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Points $XDG_RUNTIME_DIR at a scratch folder while alive, so that the
// engine's private temporary files stay out of the real home folder.
class ScopedRuntimeDir {
 public:
  ScopedRuntimeDir() {
    if (const char* old = getenv("XDG_RUNTIME_DIR")) old_ = old, hadOld_ = true;
    setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), 1);
  }
  ~ScopedRuntimeDir() {
    if (hadOld_) {
      setenv("XDG_RUNTIME_DIR", old_.c_str(), 1);
    } else {
      unsetenv("XDG_RUNTIME_DIR");
    }
  }
  ScopedRuntimeDir(const ScopedRuntimeDir&) = delete;
  ScopedRuntimeDir& operator=(const ScopedRuntimeDir&) = delete;

 private:
  ScratchDir dir_;
  std::string old_;
  bool hadOld_ = false;
};

inline void writeFile(const std::string& path, const std::string& data, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd == -1) throw std::runtime_error("open " + path);
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n <= 0) {
      close(fd);
      throw std::runtime_error("write " + path);
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
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

// Text that compresses well but not trivially: words from a small vocabulary
// in a seeded random order.
inline std::string compressibleData(size_t size, uint32_t seed = 1) {
  static const char* const kWords[] = {"alpha ", "bravo ", "charlie ", "delta ", "echo ",
                                       "foxtrot ", "golf ", "hotel ", "india\n", "juliet "};
  std::mt19937 rng(seed);
  std::string data;
  data.reserve(size + 16);
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
