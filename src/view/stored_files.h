// The compressed files of a folder as stored: what programs read as empty
// files once no view shows the folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/env.h"

namespace zephlore::view {

struct CompressedFiles {
  size_t count = 0;
  std::string first;  // relative to the folder; "" when none
};

// Walks `root` (a path that reaches the stored files, e.g. beneath a view)
// without following symbolic links, and stops once `enough` are found.
CompressedFiles compressedFilesIn(Env& env, const std::string& root, size_t enough = SIZE_MAX);

}  // namespace zephlore::view
