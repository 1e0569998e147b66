// Errors of the platform layer: the errno of the failed call as the code,
// and a message that says what was being done.
#pragma once

#include <string>

#include "base/error.h"

namespace zephlore {

inline constexpr const char* kPlatformErrorDomain = "com.quorvane.zephlore.platform";

// Fills *error with (kPlatformErrorDomain, err, what + ": " + strerror(err));
// returns false.
bool failWithErrno(Error* error, int err, const std::string& what);

}  // namespace zephlore
