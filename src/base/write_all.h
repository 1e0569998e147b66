// Whole-buffer writes: retried after signals and partial transfers, so that a
// caller never mistakes a short write for a finished one.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zephlore {

// Writes all `n` bytes at the descriptor's position (pipes too). False with
// errno set; EIO when the descriptor takes nothing.
bool writeAll(int fd, const void* data, size_t n);
// The same at `offset`, leaving the position alone.
bool pwriteAll(int fd, const void* data, size_t n, uint64_t offset);

}  // namespace zephlore
