// Whole-buffer writes: retried after signals and partial transfers, so that a
// caller never mistakes a short write for a finished one.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace zephlore {

// Writes all `n` bytes at the descriptor's position (pipes too). False with
// errno set; EIO when the descriptor takes nothing.
bool writeAll(int fd, const void* data, size_t n);
// The same at `offset`, leaving the position alone.
bool pwriteAll(int fd, const void* data, size_t n, uint64_t offset);

// The loop of both, over any write call: `put(bytes, count, done)` writes up
// to `count` bytes that lie `done` bytes into the buffer and returns what
// write(2) would.
template <typename Put>
bool writeEvery(const void* data, size_t n, Put put) {
  const char* bytes = static_cast<const char*>(data);
  size_t done = 0;
  while (done < n) {
    const ssize_t wrote = put(bytes + done, n - done, done);
    if (wrote < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (wrote == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(wrote);
  }
  return true;
}

}  // namespace zephlore
