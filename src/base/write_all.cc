#include "base/write_all.h"

#include <unistd.h>

namespace zephlore {

bool writeAll(int fd, const void* data, size_t n) {
  return writeEvery(data, n, [fd](const char* bytes, size_t count, size_t) { return write(fd, bytes, count); });
}

bool pwriteAll(int fd, const void* data, size_t n, uint64_t offset) {
  return writeEvery(data, n, [fd, offset](const char* bytes, size_t count, size_t done) {
    return pwrite(fd, bytes, count, static_cast<off_t>(offset + done));
  });
}

}  // namespace zephlore
