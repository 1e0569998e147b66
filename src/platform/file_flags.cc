#include "platform/file_flags.h"

#include <cerrno>

#include "platform/attribute_names.h"

namespace zephlore {

std::optional<uint32_t> FileFlags::get(Env& env, const FileRef& file) {
  uint8_t word[4];
  ssize_t got = env.getxattr(file, attr::kFlags, word, sizeof word);
  if (got < 0) {
    if (errno == ENODATA) return 0u;
    if (errno == ERANGE) errno = EINVAL;  // longer than a flags word
    return std::nullopt;
  }
  if (got != sizeof word) {
    errno = EINVAL;
    return std::nullopt;
  }
  return static_cast<uint32_t>(word[0]) | static_cast<uint32_t>(word[1]) << 8 |
         static_cast<uint32_t>(word[2]) << 16 | static_cast<uint32_t>(word[3]) << 24;
}

bool FileFlags::set(Env& env, const FileRef& file, uint32_t flags) {
  if (flags == 0) return env.removexattr(file, attr::kFlags) == 0 || errno == ENODATA;
  const uint8_t word[4] = {static_cast<uint8_t>(flags), static_cast<uint8_t>(flags >> 8),
                           static_cast<uint8_t>(flags >> 16), static_cast<uint8_t>(flags >> 24)};
  return env.setxattr(file, attr::kFlags, word, sizeof word, 0) == 0;
}

}  // namespace zephlore
