// The files the engine makes beside a user's files for a moment, and the
// clean-up of those a run left behind when it was killed.
//
// ".zephlore-<16 hex digits>.c" (the compressed copy, or after the swap the
// original data), ".zephlore-<16 hex digits>.x" (an expanded copy), and the
// volume probes ".zephlore-exchange-XXXXXX" and ".zephlore-probe-XXXXXX". A
// live run holds a lock on each it uses; one that nobody holds is a
// leftover. A leftover copy is settled through its file (found by the hash
// of the file's name): a half-made conversion is repaired first, and only
// what the file at the name no longer needs is removed. The original data of
// a file that is not whole is never removed.
#pragma once

#include <string>
#include <string_view>

#include "platform/env.h"

namespace zephlore {

class EngineTemporaries {
 public:
  // Whether `name` (a file name, not a path) is one of the engine's temporaries.
  static bool isTemporaryName(std::string_view name);

  // Repairs and removes the leftovers in `dir` that no live run holds.
  // Returns how many were removed.
  static int cleanFolder(Env& env, const std::string& dir);
};

}  // namespace zephlore
