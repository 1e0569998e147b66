#include "base/write_all.h"

#include <unistd.h>

#include <cerrno>
#include <optional>

namespace zephlore {
namespace {

bool writeLoop(int fd, const void* data, size_t n, std::optional<uint64_t> offset) {
  const char* bytes = static_cast<const char*>(data);
  size_t done = 0;
  while (done < n) {
    const ssize_t put = offset ? pwrite(fd, bytes + done, n - done, static_cast<off_t>(*offset + done))
                               : write(fd, bytes + done, n - done);
    if (put < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (put == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(put);
  }
  return true;
}

}  // namespace

bool writeAll(int fd, const void* data, size_t n) { return writeLoop(fd, data, n, std::nullopt); }

bool pwriteAll(int fd, const void* data, size_t n, uint64_t offset) {
  return writeLoop(fd, data, n, offset);
}

}  // namespace zephlore
