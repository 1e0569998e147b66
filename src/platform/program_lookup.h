// Finding the programs Zephlore is made of: the helper, the command and the
// window are installed side by side (a package, a build folder), so the one
// beside the running program is preferred to another copy on PATH.
#pragma once

#include <optional>
#include <string>

#include "platform/env.h"

namespace zephlore {

// `name` beside the running program when it is executable there, else the
// first executable `name` on PATH; none when neither has it.
std::optional<std::string> findProgram(Env& env, const std::string& name);

}  // namespace zephlore
