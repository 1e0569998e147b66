// Error values: a domain, a code and a message, as every fallible operation of
// the system reports them. Operations return bool and fill an optional
// `Error* error` out parameter.
#pragma once

#include <string>

namespace zephlore {

// The engine's domain (codes 700..706 and a few of our own, see engine/).
inline constexpr const char* kHFSErrorDomain = "com.quorvane.zephlore.hfs";
// The helper's domain (8000: the file's folder is no longer watched).
inline constexpr const char* kHelperErrorDomain = "com.quorvane.zephlore.error";
// A failed system call of the base layer: the errno is the code.
inline constexpr const char* kPosixErrorDomain = "com.quorvane.zephlore.posix";

struct Error {
  std::string domain;
  int code = 0;
  std::string message;  // the localized description

  std::string describe() const;  // "message (domain code)"
};

// Fills *error when the caller asked for one; always returns false so that a
// failing operation can end with `return fail(error, ...);`.
bool fail(Error* error, const char* domain, int code, std::string message);

}  // namespace zephlore
