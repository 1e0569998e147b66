#include "engine/file_manager.h"

#include "engine/volume.h"
#include "engine/xattr_metadata_store.h"
#include "platform/metadata_copy.h"
#include "platform/temporary_files.h"

namespace zephlore {

std::optional<std::string> QVFileManager::createTemporaryFile(Env& env, int* fd) {
  if (fd) *fd = -1;
  auto created = TemporaryFiles::create(env, "QVS-tmp.", nullptr);
  if (!created) return std::nullopt;
  if (fd) {
    *fd = created->fd.release();
  }
  return created->path;
}

uint32_t QVFileManager::temporaryNameHash(const std::string& path) {
  uint32_t hash = 2166136261u;
  for (unsigned char c : path) {
    hash ^= c;
    hash *= 16777619u;
  }
  return hash;
}

std::string QVFileManager::getTemporaryFileNameBasedOnExistingPath(Env& env, const std::string& path) {
  const std::string name = "QVS-tmp-" + std::to_string(temporaryNameHash(path));
  std::optional<std::string> tmp = TemporaryFiles::privateDirectory();
  struct stat st;
  const bool exists = env.lstat(path, &st) == 0;
  if (!tmp || (exists && !QVVolume::areInSameVolumePath(env, path, *tmp))) return path + "." + name;
  return *tmp + "/" + name;
}

bool QVFileManager::copyExtendedAttributesFromTo(Env& env, const std::string& from, const std::string& to) {
  return copyExtendedAttributesFromToSkipping(env, from, to, {});
}

bool QVFileManager::copyExtendedAttributesFromToSkipping(Env& env, const std::string& from,
                                                         const std::string& to,
                                                         const std::vector<std::string>& skipping) {
  bool ok = true;
  for (const std::string& key : RZXattrMetadataStore::allKeysAtPath(env, from, false)) {
    if (MetadataCopy::isSkipped(key, skipping)) continue;
    auto value = RZXattrMetadataStore::dataForKey(env, key, from, false);
    ok = value && RZXattrMetadataStore::setData(env, *value, key, to, false, nullptr) && ok;
  }
  return ok;
}

}  // namespace zephlore
