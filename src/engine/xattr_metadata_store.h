// RZXattrMetadataStore: the engine's writes of its own attributes (the
// exclude marker and the signature). With traverseLink false a final
// symbolic link is not followed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

// Errors of the store: the errno of the failed call as the code, no message.
inline constexpr const char* kXattrErrorDomain = "com.quorvane.tolvanic.xattr";

class RZXattrMetadataStore {
 public:
  RZXattrMetadataStore() = delete;

  // Create or replace.
  static bool setData(Env& env, const void* data, size_t size, const std::string& key,
                      const std::string& path, bool traverseLink, Error* error);
  static bool setData(Env& env, const std::vector<uint8_t>& data, const std::string& key,
                      const std::string& path, bool traverseLink, Error* error);

  static bool removeKey(Env& env, const std::string& key, const std::string& path, bool traverseLink,
                        Error* error);
};

}  // namespace zephlore
