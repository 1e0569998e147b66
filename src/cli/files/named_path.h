// A path named on the command line of a reading command (cat, info): a
// symbolic link there is followed, as other tools do; inside a tree a link
// is never followed.
#pragma once

#include <string>

#include "platform/env.h"

namespace zephlore::cli {

// The file a symbolic link named on the command line leads to (when it leads
// to a regular file); any other path as it is.
std::string followNamedLink(Env& env, const std::string& path);

}  // namespace zephlore::cli
