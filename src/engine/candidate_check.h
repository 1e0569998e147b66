// Which files may be compressed or decompressed, and why the others are left
// alone. The compress test is shared by the command and the helper, so the two
// never disagree on a file: a regular file of at least 4096 bytes, not yet
// compressed (flag and attributes), without a valid not-compressible marker,
// owned by the user, writable, with a single hard link and no execute bit.
#pragma once

#include <cstdint>

#include "base/error.h"
#include "engine/tree_walker.h"

namespace zephlore {

inline constexpr uint64_t kMinimumCompressSize = 4096;

enum class CandidateRejection {
  kNone,                   // a candidate
  kNotRegular,             // symbolic link, fifo, device, socket, directory
  kTooSmall,               // below 4096 bytes
  kAlreadyCompressed,
  kCompressionAttributes,  // compression attributes beside data: written after compression
  kNotOwned,
  kNotInGroup,             // its group is not one of ours: the copy could not keep it
  kUnsafeName,             // a line feed or bytes that are not UTF-8 in its path
  kHardLinks,              // other names would keep the old data after the swap
  kExecutable,             // a program that read empty would fail silently
  kNotWritable,
  kMarkedNotCompressible,  // a valid not-compressible marker
  kNotCompressed,          // decompress: a plain file
  kVanished,               // removed while we looked
  kUnreadable,             // could not be examined: see the error
};

// `may_change`: an outdated not-compressible marker may be removed. `error`
// is filled for kUnreadable. `env`: the one the entry was walked through.
CandidateRejection checkCompressCandidate(Env& env, const WalkEntry& entry, bool may_change, Error* error);
// kNone for a compressed (or oddly half-compressed) file, which the expander
// takes or refuses with an error of its own.
CandidateRejection checkDecompressCandidate(Env& env, const WalkEntry& entry, Error* error);

}  // namespace zephlore
