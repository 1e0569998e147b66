#include "platform/program_lookup.h"

#include <unistd.h>

#include <cstdlib>

namespace zephlore {

std::optional<std::string> findProgram(Env& env, const std::string& name) {
  if (std::optional<std::string> self = env.realPath("/proc/self/exe")) {
    const std::string beside = self->substr(0, self->find_last_of('/') + 1) + name;
    if (env.access(beside, X_OK) == 0) return beside;
  }
  const char* path = std::getenv("PATH");
  const std::string folders = path ? path : "";
  size_t start = 0;
  while (start < folders.size()) {
    size_t end = folders.find(':', start);
    if (end == std::string::npos) end = folders.size();
    if (end > start) {
      const std::string candidate = folders.substr(start, end - start) + "/" + name;
      if (env.access(candidate, X_OK) == 0) return candidate;
    }
    start = end + 1;
  }
  return std::nullopt;
}

}  // namespace zephlore
