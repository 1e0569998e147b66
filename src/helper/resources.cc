#include "helper/resources.h"

#include <unistd.h>

namespace zephlore {

std::string resourcePath(const std::string& name) {
  for (const char* dir : {ZEPHLORE_RESOURCE_DIR, ZEPHLORE_INSTALLED_RESOURCE_DIR}) {
    std::string path = std::string(dir) + "/" + name;
    if (access(path.c_str(), R_OK) == 0) return path;
  }
  return "";
}

}  // namespace zephlore
