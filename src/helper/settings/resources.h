// Finds the helper's resource files ("ExclusionRules.plist", the autostart
// entry, ...): in the checkout for a program of the build tree, else in
// ../share/zephlore beside the executable, else in the install prefix.
#pragma once

#include <string>

namespace zephlore {

// Full path of resource `name`, or "" when it is in neither place.
std::string resourcePath(const std::string& name);

}  // namespace zephlore
