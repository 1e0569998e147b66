#include "view/layout_attributes.h"

#include <cstring>
#include <string>

#include "platform/attribute_fork.h"
#include "platform/attribute_names.h"
#include "platform/env.h"

namespace zephlore::view {

bool isLayoutAttribute(const char* name) {
  const size_t prefix = std::strlen(kUserXattrPrefix);
  if (std::strncmp(name, kUserXattrPrefix, prefix) != 0) return false;
  const char* own = name + prefix;
  return std::strcmp(own, attr::kDecmpfs) == 0 || std::strcmp(own, attr::kFlags) == 0 ||
         AttributeFork::pieceIndex(own).has_value();
}

size_t removeLayoutAttributes(char* list, size_t size) {
  size_t kept = 0;
  for (size_t at = 0; at < size;) {
    const size_t length = strnlen(list + at, size - at);
    const size_t entry = length + (at + length < size ? 1 : 0);
    if (!isLayoutAttribute(std::string(list + at, length).c_str())) {
      std::memmove(list + kept, list + at, entry);
      kept += entry;
    }
    at += entry;
  }
  return kept;
}

}  // namespace zephlore::view
