// Whole-buffer reads and writes on descriptors, retrying after signals and
// partial transfers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "platform/env.h"

namespace zephlore {

// Reads up to n bytes at offset; returns the count read (less than n only at
// end of file) or -1 with errno set.
ssize_t preadFull(Env& env, int fd, void* buf, size_t n, uint64_t offset);
// Writes all n bytes at offset; false with errno set.
bool pwriteFull(Env& env, int fd, const void* buf, size_t n, uint64_t offset);
// Writes all n bytes at the descriptor's position (pipes too); false with errno set.
bool writeFull(int fd, const void* buf, size_t n);

}  // namespace zephlore
