#include "engine/fd_io.h"

#include "base/write_all.h"
#include "platform/env.h"

namespace zephlore {

// Positional reads and writes go through the platform layer, so that tests
// can make the source or the image fail at any block.
ssize_t preadFull(Env& env, int fd, void* buf, size_t n, uint64_t offset) {
  return env.preadFully(fd, buf, n, offset);
}

bool pwriteFull(Env& env, int fd, const void* buf, size_t n, uint64_t offset) {
  return env.pwriteFully(fd, buf, n, offset);
}

bool writeFull(int fd, const void* buf, size_t n) { return writeAll(fd, buf, n); }

}  // namespace zephlore
