#include "engine/decmpfs_header.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>

#include "engine/hfs_compression_structs_helper.h"
#include "engine/hfs_error_codes.h"

namespace zephlore {

std::array<uint8_t, kDecmpfsValueSize> decmpfsValueForSize(uint64_t uncompressedSize) {
  HFSPlusDecmpfs header =
      QVHFSCompressionStructsHelper::createDecmpfsStructForSize(static_cast<int64_t>(uncompressedSize));
  QVHFSCompressionStructsHelper::flipHFSPlusDecmpfs(&header);
  std::array<uint8_t, kDecmpfsValueSize> out;
  std::memcpy(out.data(), &header, sizeof header);
  return out;
}

bool parseDecmpfsValue(const void* data, size_t size, uint64_t* uncompressedSize, Error* error) {
  auto bad = [&](const std::string& why) {
    return fail(error, kHFSErrorDomain, kHFSErrorNotCompressed, "Compression header is not valid: " + why);
  };
  if (size != kDecmpfsValueSize) {
    return bad("it is " + std::to_string(size) + " bytes long, not 16");
  }
  HFSPlusDecmpfs header;
  std::memcpy(&header, data, sizeof header);
  QVHFSCompressionStructsHelper::flipHFSPlusDecmpfs(&header);
  if (header.compression_magic != kDecmpfsMagic) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08" PRIx32, header.compression_magic);
    return bad(std::string("wrong magic ") + hex);
  }
  if (header.compression_type != kDecmpfsTypeZlibResourceFork) {
    return bad("compression type " + std::to_string(header.compression_type) + " is not supported (only 4)");
  }
  if (header.uncompressed_size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    return bad("uncompressed size " + std::to_string(header.uncompressed_size) + " is out of range");
  }
  if (uncompressedSize) *uncompressedSize = header.uncompressed_size;
  return true;
}

}  // namespace zephlore
