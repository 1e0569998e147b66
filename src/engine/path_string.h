// Path-string services: canonical forms and directory tests.
#pragma once

#include <string>

#include "platform/env.h"

namespace zephlore {

class QVPathString {
 public:
  QVPathString() = delete;

  // realpath() of the path; the path unchanged when that fails.
  static std::string stringByCanonicalizingPath(Env& env, const std::string& path);
  // Something exists at the path (following links) and it is a directory.
  static bool isDirectory(Env& env, const std::string& path);
};

}  // namespace zephlore
