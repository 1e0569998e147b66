// The engine's refusals of a file, worded in one place: "File at path P
// is locked by other process", "... has more than one hard link", ...
#pragma once

#include <string>

#include "base/error.h"

namespace zephlore {

// The message for refusal `code` (kHFSErrorDomain) of the file at `path`,
// with `detail` in parentheses when given.
std::string refusalMessage(int code, const std::string& path, const std::string& detail = {});

// fail() with that message: always false.
bool refuse(Error* error, int code, const std::string& path, const std::string& detail = {});

}  // namespace zephlore
