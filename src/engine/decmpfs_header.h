// The value of "com.apple.decmpfs": encoding it for a file and checking one
// read back from a file before its resource fork is trusted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/error.h"

namespace zephlore {

inline constexpr size_t kDecmpfsValueSize = 16;

// The 16 bytes stored for a file of `uncompressedSize` bytes: "fpmc", type 4
// and the size, all little-endian.
std::array<uint8_t, kDecmpfsValueSize> decmpfsValueForSize(uint64_t uncompressedSize);

// Accepts exactly the values this system writes: 16 bytes, the magic, type 4
// (zlib data in the resource fork) and a size that fits a file's signed size.
// Anything else fails with 705 in kHFSErrorDomain, saying what is wrong.
bool parseDecmpfsValue(const void* data, size_t size, uint64_t* uncompressedSize, Error* error);

}  // namespace zephlore
