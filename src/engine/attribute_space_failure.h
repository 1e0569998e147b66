// Why the compressed copy of a file could not take its attributes, worded so
// that a person can act on it: the volume takes no user attributes or too
// few per file to hold the form at all (715), the file is too large for the
// form on its volume or for any file's attribute list (724: marked, so that
// it is not tried again until it changes), or the volume is simply full.
#pragma once

#include <cstdint>
#include <string>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

// Fills *error (kHFSErrorDomain) for a failed attribute write on the copy
// `copyFd` of `path`: `err` and `why` as the writer reported them, and
// `storedBytes`, what the volume had taken of the copy's fork when it
// refused. Always false.
bool attributeWriteFailure(Env& env, Error* error, const std::string& path, int copyFd, int err,
                           const std::string& why, uint64_t storedBytes);

// Free space below this is "full": a refusal then says nothing about what
// the volume could hold.
inline constexpr uint64_t kNearlyFullVolumeBytes = 4ull << 20;

}  // namespace zephlore
