// The watched folders and their savings for `zephlore status`, as the
// helper's history database has them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore::cli {

struct StatusFolder {
  std::string path;
  uint64_t savings = 0;  // bytes
  // Set when its volume cannot hold the compressed form: why.
  std::optional<std::string> cannotHold;
};

// None when the folders cannot be read; *problem then says why.
std::optional<std::vector<StatusFolder>> watchedFoldersForStatus(Env& env, std::string* problem);

}  // namespace zephlore::cli
