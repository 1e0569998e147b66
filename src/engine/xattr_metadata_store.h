// RZXattrMetadataStore: a key/value store on a file's extended attributes,
// holding raw bytes, UTF-8 strings or property-list values. The engine reads
// and writes every attribute through it. With traverseLink false a final
// symbolic link is not followed.
//
// Nothing here throws: a value that cannot be parsed, serialised or
// converted is logged ("RZXattrMetastoreCantUnserialize", ...) and reads as
// none or fails the write.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "engine/plist_ptr.h"
#include "platform/env.h"

namespace zephlore {

// Errors of the store: the errno of the failed call as the code, no message.
inline constexpr const char* kXattrErrorDomain = "com.quorvane.tolvanic.xattr";

class RZXattrMetadataStore {
 public:
  RZXattrMetadataStore() = delete;

  // The names in the order listed; empty when they cannot be listed.
  static std::vector<std::string> allKeysAtPath(Env& env, const std::string& path, bool traverseLink);

  static std::optional<std::vector<uint8_t>> dataForKey(Env& env, const std::string& key,
                                                        const std::string& path,
                                                        bool traverseLink);
  static std::optional<std::vector<uint8_t>> dataForKey(Env& env, const std::string& key,
                                                        const FileRef& file);
  // None also when the value is not valid UTF-8.
  static std::optional<std::string> stringForKey(Env& env, const std::string& key, const std::string& path,
                                                 bool traverseLink);
  // The value parsed as a property list (binary or XML).
  static PlistPtr objectForKey(Env& env, const std::string& key, const std::string& path, bool traverseLink);

  // Create or replace.
  static bool setData(Env& env, const void* data, size_t size, const std::string& key,
                      const std::string& path, bool traverseLink, Error* error);
  static bool setData(Env& env, const std::vector<uint8_t>& data, const std::string& key,
                      const std::string& path, bool traverseLink, Error* error);
  static bool setData(Env& env, const void* data, size_t size, const std::string& key, const FileRef& file,
                      Error* error);
  static bool setString(Env& env, const std::string& value, const std::string& key,
                        const std::string& path, bool traverseLink, Error* error);
  // Stored as an XML property list.
  static bool setObject(Env& env, plist_t value, const std::string& key, const std::string& path,
                        bool traverseLink, Error* error);

  static bool removeKey(Env& env, const std::string& key, const std::string& path, bool traverseLink,
                        Error* error);
  static bool removeKey(Env& env, const std::string& key, const FileRef& file, Error* error);
};

}  // namespace zephlore
