// KRExtendedAttributesHelper: the helper's markers on files. The exclude
// marker "com.quorvane.zephlore.exclude" says a file could not be
// compressed; it holds the file's modification time when set (16 bytes:
// seconds then nanoseconds, signed 64-bit little-endian) and is valid only
// while that time is unchanged. The signature "com.quorvane.zephlore.signature"
// records a compression. None of these follows a final symbolic link; all
// answer false (or none) on any failure.
//
// Each operation has a form for a path string (...At) and one for a C path
// (...AtFilesystemName).
#pragma once

#include <optional>
#include <string>

#include "engine/compression_signature.h"
#include "platform/env.h"

namespace zephlore {

class KRExtendedAttributesHelper {
 public:
  KRExtendedAttributesHelper() = delete;

  static bool isAttributeSetAt(Env& env, const std::string& name, const std::string& path);
  static bool isAttributeSetAtFilesystemName(Env& env, const std::string& name, const char* path);

  // "com.apple.ResourceFork" or "com.apple.decmpfs" is present.
  static bool isCompressionAttributeSetAt(Env& env, const std::string& path);
  static bool isCompressionAttributeSetAtFilesystemName(Env& env, const char* path);

  static bool isUncompressableAttributeSetAt(Env& env, const std::string& path);
  static bool isUncompressableAttributeSetAtFilesystemName(Env& env, const char* path);
  // Sets the exclude marker to the file's current modification time.
  static bool setUncompressableAttributeAt(Env& env, const std::string& path);
  static bool setUncompressableAttributeAtFileSystemName(Env& env, const char* path);
  static bool removeUncompressableAttributeAt(Env& env, const std::string& path);
  static bool removeUncompressableAttributeAtFilesystemName(Env& env, const char* path);
  // The marker is 16 bytes and equals the file's modification time. An
  // outdated marker is removed when asked; one of another length is invalid
  // and never removed.
  static bool isUncompressableAttributeValidAt(Env& env, const std::string& path,
                                               bool deleteIfNotValid = false);
  static bool isUncompressableAttributeValidAtFilesystemName(Env& env, const char* path,
                                                             bool deleteIfNotValid = false);

  static bool setCompressionSignature(Env& env, const KRCompressionSignature& signature,
                                      const std::string& path);
  static std::optional<KRCompressionSignature> compressionSignatureAtPath(Env& env, const std::string& path);
  static std::optional<KRCompressionSignature> compressionSignatureAtFilesystemName(Env& env,
      const char* path);
};

}  // namespace zephlore
