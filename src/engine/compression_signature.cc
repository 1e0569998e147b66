#include "engine/compression_signature.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdint>
#include <memory>

#include "base/clock.h"
#include "engine/plist_ptr.h"

namespace zephlore {
namespace {

constexpr const char* kUncompressedSizeKey = "uncompressedSize";
constexpr const char* kLastCompressedKey = "lastCompressed";

double nowSeconds(const Clock& clock) { return toSeconds(clock.wallNow().time_since_epoch()); }

}  // namespace

KRCompressionSignature KRCompressionSignature::signatureWithUncompressedSize(
    uint64_t uncompressedSize, const Clock& clock) {
  return KRCompressionSignature(uncompressedSize, nowSeconds(clock));
}

double KRCompressionSignature::age(const Clock& clock) const { return nowSeconds(clock) - lastCompressed_; }

std::vector<uint8_t> KRCompressionSignature::archive() const {
  PlistPtr dict(plist_new_dict());
  // "lastCompressed" first, as the archive has always been written.
  plist_dict_set_item(dict.get(), kLastCompressedKey, plist_new_real(lastCompressed_));
  plist_dict_set_item(dict.get(), kUncompressedSizeKey, plist_new_uint(uncompressedSize_));
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(dict.get(), &bytes, &length);
  std::vector<uint8_t> out(bytes, bytes + (bytes ? length : 0));
  plist_to_bin_free(bytes);
  return out;
}

std::optional<KRCompressionSignature> KRCompressionSignature::unarchive(const void* data,
                                                                        size_t size) {
  if (!data || size == 0 || size > UINT32_MAX) return std::nullopt;
  plist_t parsed = nullptr;
  plist_from_memory(static_cast<const char*>(data), static_cast<uint32_t>(size), &parsed);
  PlistPtr root(parsed);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
  plist_t sizeNode = plist_dict_get_item(root.get(), kUncompressedSizeKey);
  plist_t timeNode = plist_dict_get_item(root.get(), kLastCompressedKey);
  if (!sizeNode || plist_get_node_type(sizeNode) != PLIST_UINT || !timeNode) return std::nullopt;
  uint64_t uncompressedSize = 0;
  plist_get_uint_val(sizeNode, &uncompressedSize);
  double lastCompressed = 0;
  switch (plist_get_node_type(timeNode)) {
    case PLIST_REAL:
      plist_get_real_val(timeNode, &lastCompressed);
      break;
    case PLIST_UINT: {  // a whole number of seconds written by hand
      uint64_t seconds = 0;
      plist_get_uint_val(timeNode, &seconds);
      lastCompressed = static_cast<double>(seconds);
      break;
    }
    default:
      return std::nullopt;
  }
  if (!std::isfinite(lastCompressed)) return std::nullopt;
  return KRCompressionSignature(uncompressedSize, lastCompressed);
}

}  // namespace zephlore
