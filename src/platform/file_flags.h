// The flags word of a file (Linux has no chflags): the attribute
// "com.quorvane.zephlore.flags", 4 bytes little-endian. A file without the
// attribute has the flags 0.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/env.h"

namespace zephlore {

class FileFlags {
 public:
  FileFlags() = delete;

  static constexpr uint32_t kUFCompressed = 0x20;

  // The flags; 0 when absent. None with errno set when the attribute cannot
  // be read or is not 4 bytes long (EINVAL).
  static std::optional<uint32_t> get(Env& env, const FileRef& file);
  // Stores `flags`; 0 removes the attribute. False with errno set.
  static bool set(Env& env, const FileRef& file, uint32_t flags);
};

}  // namespace zephlore
