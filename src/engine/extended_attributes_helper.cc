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

bool statNoFollow(const std::string& path, struct stat* st) {
  return Env::shared().lstat(path, st) == 0;
}

}  // namespace

bool KRExtendedAttributesHelper::isAttributeSetAt(const std::string& name,
                                                  const std::string& path) {
  return Env::shared().getxattr(FileRef::atPath(path), name, nullptr, 0) >= 0;
}

bool KRExtendedAttributesHelper::isAttributeSetAtFilesystemName(const std::string& name,
                                                                const char* path) {
  return path && isAttributeSetAt(name, path);
}

bool KRExtendedAttributesHelper::isCompressionAttributeSetAt(const std::string& path) {
  return isAttributeSetAt(attr::kResourceFork, path) || isAttributeSetAt(attr::kDecmpfs, path);
}

bool KRExtendedAttributesHelper::isCompressionAttributeSetAtFilesystemName(const char* path) {
  return path && isCompressionAttributeSetAt(path);
}

bool KRExtendedAttributesHelper::isUncompressableAttributeSetAt(const std::string& path) {
  return isAttributeSetAt(attr::kExclude, path);
}

bool KRExtendedAttributesHelper::isUncompressableAttributeSetAtFilesystemName(const char* path) {
  return path && isUncompressableAttributeSetAt(path);
}

bool KRExtendedAttributesHelper::setUncompressableAttributeAt(const std::string& path) {
  struct stat st;
  if (!statNoFollow(path, &st)) return false;
  uint8_t value[kExcludeValueSize];
  putLE64(value, st.st_mtim.tv_sec);
  putLE64(value + 8, st.st_mtim.tv_nsec);
  return RZXattrMetadataStore::setData(value, sizeof value, attr::kExclude, path, false, nullptr);
}

bool KRExtendedAttributesHelper::setUncompressableAttributeAtFileSystemName(const char* path) {
  return path && setUncompressableAttributeAt(path);
}

bool KRExtendedAttributesHelper::removeUncompressableAttributeAt(const std::string& path) {
  return RZXattrMetadataStore::removeKey(attr::kExclude, path, false, nullptr);
}

bool KRExtendedAttributesHelper::removeUncompressableAttributeAtFilesystemName(const char* path) {
  return path && removeUncompressableAttributeAt(path);
}

bool KRExtendedAttributesHelper::isUncompressableAttributeValidAt(const std::string& path,
                                                                  bool deleteIfNotValid) {
  struct stat st;
  if (!statNoFollow(path, &st)) return false;
  uint8_t value[kExcludeValueSize];
  ssize_t got = Env::shared().getxattr(FileRef::atPath(path), attr::kExclude, value, sizeof value);
  if (got != static_cast<ssize_t>(sizeof value)) return false;  // absent or not ours: left alone
  const bool valid =
      getLE64(value) == st.st_mtim.tv_sec && getLE64(value + 8) == st.st_mtim.tv_nsec;
  if (!valid && deleteIfNotValid) removeUncompressableAttributeAt(path);
  return valid;
}

bool KRExtendedAttributesHelper::isUncompressableAttributeValidAtFilesystemName(
    const char* path, bool deleteIfNotValid) {
  return path && isUncompressableAttributeValidAt(path, deleteIfNotValid);
}

bool KRExtendedAttributesHelper::setCompressionSignature(const KRCompressionSignature& signature,
                                                         const std::string& path) {
  struct stat st;
  if (!statNoFollow(path, &st)) return false;
  return RZXattrMetadataStore::setData(signature.archive(), attr::kSignature, path, false,
                                       nullptr);
}

std::optional<KRCompressionSignature> KRExtendedAttributesHelper::compressionSignatureAtPath(
    const std::string& path) {
  Env& env = Env::shared();
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
KRExtendedAttributesHelper::compressionSignatureAtFilesystemName(const char* path) {
  if (!path) return std::nullopt;
  return compressionSignatureAtPath(path);
}

}  // namespace zephlore
