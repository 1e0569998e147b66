// What compress and decompress do to one file: the candidate test and the
// call into the engine.
#pragma once

#include <memory>

#include "cli/files/tree_run.h"

namespace zephlore::cli {

class ConversionSafety;

// `verify`: inflate each block again before the compressed copy replaces the
// file. `safety`: the run's record and clean-up (none on a dry run).
std::unique_ptr<FileAction> makeCompressAction(Env& env, const Clock& clock, bool verify, ConversionSafety* safety);
std::unique_ptr<FileAction> makeDecompressAction(Env& env, ConversionSafety* safety);

}  // namespace zephlore::cli
