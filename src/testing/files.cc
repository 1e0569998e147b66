#include "testing/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <stdexcept>

namespace zephlore::testkit {

void writeFile(const std::string& path, const std::string& data, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd == -1) throw std::runtime_error("open " + path);
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(fd);
      throw std::runtime_error("write " + path);
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
}

std::string readFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME);
  if (fd == -1 && errno == EPERM) fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) throw std::runtime_error("open " + path);
  std::string data;
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    data.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  if (n < 0) throw std::runtime_error("read " + path);
  return data;
}

mode_t modeOf(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) throw std::runtime_error("lstat " + path);
  return st.st_mode & 07777;
}

std::string compressibleData(size_t size, uint32_t seed) {
  static const char* const kWords[] = {"alpha ", "bravo ", "charlie ", "delta ", "echo ",
                                       "foxtrot ", "golf ", "hotel ", "india\n", "juliet "};
  std::mt19937 rng(seed);
  std::string data;
  while (data.size() < size) data += kWords[rng() % 10];
  data.resize(size);
  return data;
}

std::string randomData(size_t size, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(rng());
  return data;
}

}  // namespace zephlore::testkit
