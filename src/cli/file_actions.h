// What compress and decompress do to one file: the candidate test and the
// call into the engine.
#pragma once

#include <memory>

#include "cli/tree_run.h"

namespace zephlore::cli {

// `verify`: inflate each block again before the compressed copy replaces the
// file.
std::unique_ptr<FileAction> makeCompressAction(bool verify);
std::unique_ptr<FileAction> makeDecompressAction();

}  // namespace zephlore::cli
