#include "platform/platform_error.h"

#include <cstring>

namespace zephlore {

bool failWithErrno(Error* error, int err, const std::string& what) {
  return fail(error, kPlatformErrorDomain, err, what + ": " + std::strerror(err));
}

}  // namespace zephlore
