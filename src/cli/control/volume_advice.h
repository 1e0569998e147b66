// What the folder commands say about a folder whose volume cannot hold the
// compressed form: why, and what would change that.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore::cli {

// What would let the volume of `folder` hold the form, as lines for people.
std::vector<std::string> volumeFix(Env& env, const std::string& folder);

// `zephlore add`: says for each folder whose volume cannot hold the form why
// and what would fix it. False (nothing is to be added) when any such folder
// was named, unless `anyway`.
bool volumesCanHoldOrAnyway(Env& env, const std::vector<std::string>& arguments, bool anyway);

}  // namespace zephlore::cli
