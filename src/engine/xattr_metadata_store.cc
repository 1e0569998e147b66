#include "engine/xattr_metadata_store.h"

#include <cerrno>
#include <cstdint>

#include "base/log.h"
#include "base/utf8.h"

namespace zephlore {
namespace {

bool failed(Error* error) { return fail(error, kXattrErrorDomain, errno, ""); }

}  // namespace

std::vector<std::string> RZXattrMetadataStore::allKeysAtPath(Env& env, const std::string& path,
                                                             bool traverseLink) {
  return env.listxattr(FileRef::atPath(path, traverseLink)).value_or(
      std::vector<std::string>{});
}

std::optional<std::vector<uint8_t>> RZXattrMetadataStore::dataForKey(Env& env, const std::string& key,
                                                                     const std::string& path,
                                                                     bool traverseLink) {
  return dataForKey(env, key, FileRef::atPath(path, traverseLink));
}

std::optional<std::vector<uint8_t>> RZXattrMetadataStore::dataForKey(Env& env, const std::string& key,
                                                                     const FileRef& file) {
  return env.getxattrValue(file, key);
}

std::optional<std::string> RZXattrMetadataStore::stringForKey(Env& env, const std::string& key,
                                                              const std::string& path,
                                                              bool traverseLink) {
  auto data = dataForKey(env, key, path, traverseLink);
  if (!data) return std::nullopt;
  std::string text(data->begin(), data->end());
  if (!isValidUTF8(text)) return std::nullopt;
  return text;
}

PlistPtr RZXattrMetadataStore::objectForKey(Env& env, const std::string& key, const std::string& path,
                                            bool traverseLink) {
  auto data = dataForKey(env, key, path, traverseLink);
  if (!data) return nullptr;
  plist_t plist = nullptr;
  if (!data->empty() && data->size() <= UINT32_MAX) {
    plist_from_memory(reinterpret_cast<const char*>(data->data()),
                      static_cast<uint32_t>(data->size()), &plist);
  }
  if (!plist) {
    KRLog("RZXattrMetastoreCantUnserialize: the attribute %s of %s is not a property list",
          key.c_str(), path.c_str());
  }
  return PlistPtr(plist);
}

bool RZXattrMetadataStore::setData(Env& env, const void* data, size_t size, const std::string& key,
                                   const FileRef& file, Error* error) {
  if (env.setxattr(file, key, data, size, 0) != 0) return failed(error);
  return true;
}

bool RZXattrMetadataStore::setData(Env& env, const void* data, size_t size, const std::string& key,
                                   const std::string& path, bool traverseLink, Error* error) {
  return setData(env, data, size, key, FileRef::atPath(path, traverseLink), error);
}

bool RZXattrMetadataStore::setData(Env& env, const std::vector<uint8_t>& data, const std::string& key,
                                   const std::string& path, bool traverseLink, Error* error) {
  return setData(env, data.data(), data.size(), key, path, traverseLink, error);
}

bool RZXattrMetadataStore::setString(Env& env, const std::string& value, const std::string& key,
                                     const std::string& path, bool traverseLink, Error* error) {
  if (!isValidUTF8(value)) {
    KRLog("Couldn't convert string to UTF8 for xattr storage.");
    errno = EILSEQ;
    return failed(error);
  }
  return setData(env, value.data(), value.size(), key, path, traverseLink, error);
}

bool RZXattrMetadataStore::setObject(Env& env, plist_t value, const std::string& key,
                                     const std::string& path, bool traverseLink, Error* error) {
  char* xml = nullptr;
  uint32_t length = 0;
  if (value) plist_to_xml(value, &xml, &length);
  if (!xml) {
    KRLog("RZXattrMetastoreCantSerialize: no property list to store in %s of %s", key.c_str(),
          path.c_str());
    errno = EINVAL;
    return failed(error);
  }
  bool ok = setData(env, xml, length, key, path, traverseLink, error);
  plist_to_xml_free(xml);
  return ok;
}

bool RZXattrMetadataStore::removeKey(Env& env, const std::string& key, const std::string& path,
                                     bool traverseLink, Error* error) {
  return removeKey(env, key, FileRef::atPath(path, traverseLink), error);
}

bool RZXattrMetadataStore::removeKey(Env& env, const std::string& key, const FileRef& file, Error* error) {
  if (env.removexattr(file, key) != 0) return failed(error);
  return true;
}

}  // namespace zephlore
