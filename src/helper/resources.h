// Finds the helper's resource files ("ExclusionRules.plist", the autostart
// entry, ...) in the source tree when run from a build, or where they are
// installed.
#pragma once

#include <string>

namespace zephlore {

// Full path of resource `name`, or "" when it is in neither place.
std::string resourcePath(const std::string& name);

}  // namespace zephlore
