#include "engine/fd_io.h"

#include <unistd.h>

#include <cerrno>

namespace zephlore {

ssize_t preadFull(int fd, void* buf, size_t n, uint64_t offset) {
  size_t done = 0;
  while (done < n) {
    const ssize_t r = ::pread(fd, static_cast<char*>(buf) + done, n - done, static_cast<off_t>(offset + done));
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (r == 0) break;
    done += static_cast<size_t>(r);
  }
  return static_cast<ssize_t>(done);
}

bool pwriteFull(int fd, const void* buf, size_t n, uint64_t offset) {
  size_t done = 0;
  while (done < n) {
    const ssize_t w =
        ::pwrite(fd, static_cast<const char*>(buf) + done, n - done, static_cast<off_t>(offset + done));
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (w == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(w);
  }
  return true;
}

bool writeFull(int fd, const void* buf, size_t n) {
  size_t done = 0;
  while (done < n) {
    const ssize_t w = ::write(fd, static_cast<const char*>(buf) + done, n - done);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (w == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(w);
  }
  return true;
}

}  // namespace zephlore
