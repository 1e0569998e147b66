#include "engine/xattr_metadata_store.h"

#include <cerrno>

namespace zephlore {
namespace {

bool failed(Error* error) { return fail(error, kXattrErrorDomain, errno, ""); }

}  // namespace

bool RZXattrMetadataStore::setData(Env& env, const void* data, size_t size, const std::string& key,
                                   const std::string& path, bool traverseLink, Error* error) {
  if (env.setxattr(FileRef::atPath(path, traverseLink), key, data, size, 0) != 0) return failed(error);
  return true;
}

bool RZXattrMetadataStore::setData(Env& env, const std::vector<uint8_t>& data, const std::string& key,
                                   const std::string& path, bool traverseLink, Error* error) {
  return setData(env, data.data(), data.size(), key, path, traverseLink, error);
}

bool RZXattrMetadataStore::removeKey(Env& env, const std::string& key, const std::string& path,
                                     bool traverseLink, Error* error) {
  if (env.removexattr(FileRef::atPath(path, traverseLink), key) != 0) return failed(error);
  return true;
}

}  // namespace zephlore
