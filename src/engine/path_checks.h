// Paths the engine rewrites in place must be recordable faithfully in the
// crash-recovery record, whose format cuts a path at its first line feed and
// whose readers take it as UTF-8 text; and they, and the temporary copy's
// name beside them, must fit the system's limits.
#pragma once

#include <string>

#include "base/error.h"

namespace zephlore {

// False with a refusal error (kHFSErrorDomain 710, 711 or 716) when `path`
// holds a line feed, is not valid UTF-8, is too long, or has a component
// longer than a file name may be.
bool checkPathForRewrite(const std::string& path, Error* error);

}  // namespace zephlore
