// Paths given by a user or arriving on the bus, made into the one form every
// rule compares: absolute, without ".", "..", repeated or trailing slashes.
#pragma once

#include <string>

#include "platform/env.h"

namespace zephlore {

// Lexical only: "." and repeated slashes dropped, ".." takes off the
// component before it (never above "/"). Right only where no component is a
// symbolic link. A relative `path` is taken from `base` (absolute).
std::string lexicallyNormalPath(const std::string& path, const std::string& base = "/");

// The path with its symbolic links resolved as far as it exists: the
// deepest existing folder on it goes through realPath, the missing rest is
// normalised lexically (a missing component is no link). A relative `path`
// is taken from the working folder.
std::string resolvedUserPath(Env& env, const std::string& path);

}  // namespace zephlore
