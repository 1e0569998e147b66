#include "engine/extended_attributes_helper.h"

#include <sys/stat.h>

#include <cstdint>
#include <vector>

#include "engine/xattr_metadata_store.h"
#include "platform/attribute_names.h"
#include "platform/env.h"

namespace zephlore {
namespace {

constexpr size_t kExcludeValueSize = 16;

void putLE64(uint8_t* out, int64_t value) {
  const auto bits = static_cast<uint64_t>(value);
  for (int i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(bits >> (8 * i));
}

int64_t getLE64(const uint8_t* in) {
  uint64_t bits = 0;
  for (int i = 7; i >= 0; --i) bits = (bits << 8) | in[i];
  return static_cast<int64_t>(bits);
}

bool statNoFollow(Env& env, const std::string& path, struct stat* st) {
  return env.lstat(path, st) == 0;
}

}  // namespace

bool KRExtendedAttributesHelper::isAttributeSetAt(Env& env, const std::string& name,
                                                  const std::string& path) {
  return env.getxattr(FileRef::atPath(path), name, nullptr, 0) >= 0;
}

bool KRExtendedAttributesHelper::isAttributeSetAtFilesystemName(Env& env, const std::string& name,
                                                                const char* path) {
  return path && isAttributeSetAt(env, name, path);
}

bool KRExtendedAttributesHelper::isCompressionAttributeSetAt(Env& env, const std::string& path) {
  return isAttributeSetAt(env, attr::kResourceFork, path) || isAttributeSetAt(env, attr::kDecmpfs, path);
}

bool KRExtendedAttributesHelper::isCompressionAttributeSetAtFilesystemName(Env& env, const char* path) {
  return path && isCompressionAttributeSetAt(env, path);
}

bool KRExtendedAttributesHelper::isUncompressableAttributeSetAt(Env& env, const std::string& path) {
  return isAttributeSetAt(env, attr::kExclude, path);
}

bool KRExtendedAttributesHelper::isUncompressableAttributeSetAtFilesystemName(Env& env, const char* path) {
  return path && isUncompressableAttributeSetAt(env, path);
}

bool KRExtendedAttributesHelper::setUncompressableAttributeAt(Env& env, const std::string& path) {
  struct stat st;
  if (!statNoFollow(env, path, &st)) return false;
  uint8_t value[kExcludeValueSize];
  putLE64(value, st.st_mtim.tv_sec);
  putLE64(value + 8, st.st_mtim.tv_nsec);
  return RZXattrMetadataStore::setData(env, value, sizeof value, attr::kExclude, path, false, nullptr);
}

bool KRExtendedAttributesHelper::setUncompressableAttributeAtFileSystemName(Env& env, const char* path) {
  return path && setUncompressableAttributeAt(env, path);
}

bool KRExtendedAttributesHelper::removeUncompressableAttributeAt(Env& env, const std::string& path) {
  return RZXattrMetadataStore::removeKey(env, attr::kExclude, path, false, nullptr);
}

bool KRExtendedAttributesHelper::removeUncompressableAttributeAtFilesystemName(Env& env, const char* path) {
  return path && removeUncompressableAttributeAt(env, path);
}

bool KRExtendedAttributesHelper::isUncompressableAttributeValidAt(Env& env, const std::string& path,
                                                                  bool deleteIfNotValid) {
  struct stat st;
  if (!statNoFollow(env, path, &st)) return false;
  uint8_t value[kExcludeValueSize];
  ssize_t got = env.getxattr(FileRef::atPath(path), attr::kExclude, value, sizeof value);
  if (got != static_cast<ssize_t>(sizeof value)) return false;  // absent or not ours: left alone
  const bool valid =
      getLE64(value) == st.st_mtim.tv_sec && getLE64(value + 8) == st.st_mtim.tv_nsec;
  if (!valid && deleteIfNotValid) removeUncompressableAttributeAt(env, path);
  return valid;
}

bool KRExtendedAttributesHelper::isUncompressableAttributeValidAtFilesystemName(Env& env,
    const char* path, bool deleteIfNotValid) {
  return path && isUncompressableAttributeValidAt(env, path, deleteIfNotValid);
}

bool KRExtendedAttributesHelper::setCompressionSignature(Env& env, const KRCompressionSignature& signature,
                                                         const std::string& path) {
  struct stat st;
  if (!statNoFollow(env, path, &st)) return false;
  return RZXattrMetadataStore::setData(env, signature.archive(), attr::kSignature, path, false,
                                       nullptr);
}

std::optional<KRCompressionSignature> KRExtendedAttributesHelper::compressionSignatureAtPath(Env& env,
    const std::string& path) {
  const FileRef file = FileRef::atPath(path);
  ssize_t size = env.getxattr(file, attr::kSignature, nullptr, 0);
  if (size < 1) return std::nullopt;
  std::vector<uint8_t> value(static_cast<size_t>(size));
  if (env.getxattr(file, attr::kSignature, value.data(), value.size()) != size) {
    return std::nullopt;
  }
  return KRCompressionSignature::unarchive(value.data(), value.size());
}

std::optional<KRCompressionSignature>
KRExtendedAttributesHelper::compressionSignatureAtFilesystemName(Env& env, const char* path) {
  if (!path) return std::nullopt;
  return compressionSignatureAtPath(env, path);
}

}  // namespace zephlore
