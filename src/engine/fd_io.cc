#include "engine/fd_io.h"

#include "platform/env.h"

#include <unistd.h>

#include <cerrno>

namespace zephlore {

// Positional reads and writes go through the platform layer, so that tests
// can make the source or the image fail at any block.
ssize_t preadFull(int fd, void* buf, size_t n, uint64_t offset) {
  return Env::shared().preadFully(fd, buf, n, offset);
}

bool pwriteFull(int fd, const void* buf, size_t n, uint64_t offset) {
  return Env::shared().pwriteFully(fd, buf, n, offset);
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
