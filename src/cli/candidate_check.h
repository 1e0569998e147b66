// Which files compress and decompress take, and why they leave the others
// alone. The compress test is the helper's test for one file: a regular file
// of at least 4096 bytes, not yet compressed (flag and attributes), without a
// valid not-compressible marker, owned by the user, writable, with a single
// hard link.
#pragma once

#include <optional>

#include "cli/file_outcome.h"
#include "cli/tree_walker.h"

namespace zephlore::cli {

inline constexpr uint64_t kMinimumCompressSize = 4096;

// A skipped (or, when the file cannot be examined, failed) result; none for
// a candidate. `may_change`: an outdated not-compressible marker may be
// removed (not in a dry run).
std::optional<FileResult> checkCompressCandidate(const WalkEntry& entry, bool may_change);
std::optional<FileResult> checkDecompressCandidate(const WalkEntry& entry);

}  // namespace zephlore::cli
