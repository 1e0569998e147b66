// Path-string services: canonical forms, directory tests, and the check that
// a path is one the engine can handle and record.
#pragma once

#include <cstddef>
#include <string>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

class QVPathString {
 public:
  QVPathString() = delete;

  // A path from a C path of `length` bytes, cut at a zero byte.
  static std::string stringWithFileSystemRepresentation(const char* path, size_t length);
  // realpath() of the path; the path unchanged when that fails.
  static std::string stringByCanonicalizingPath(Env& env, const std::string& path);
  // Something exists at the path (following links) and it is a directory.
  static bool isDirectory(Env& env, const std::string& path);

  // A path the engine can work on and write into its crash record: not
  // empty, no zero byte or line feed, valid UTF-8, within the system's path
  // and name lengths. False with a clear error otherwise.
  static bool isUsablePath(const std::string& path, Error* error);
};

}  // namespace zephlore
