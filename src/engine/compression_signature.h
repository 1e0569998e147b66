// KRCompressionSignature: what a compressed file remembers about its
// compression: its size before, and when it was compressed. Kept in the
// attribute "com.quorvane.zephlore.signature" as a binary property list
// with the keys "lastCompressed" (real) and "uncompressedSize" (integer).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "base/clock.h"

namespace zephlore {

class KRCompressionSignature {
 public:
  // lastCompressed: seconds since 1970-01-01 00:00 UTC.
  KRCompressionSignature(uint64_t uncompressedSize, double lastCompressed)
      : uncompressedSize_(uncompressedSize), lastCompressed_(lastCompressed) {}

  // Compressed now on `clock`.
  static KRCompressionSignature signatureWithUncompressedSize(uint64_t uncompressedSize, const Clock& clock);
  static KRCompressionSignature signatureWithUncompressedSizeLastCompressedTimeStamp(
      uint64_t uncompressedSize, double lastCompressed) {
    return KRCompressionSignature(uncompressedSize, lastCompressed);
  }

  uint64_t uncompressedSize() const { return uncompressedSize_; }
  double lastCompressed() const { return lastCompressed_; }
  // Seconds from lastCompressed to now on `clock`.
  double age(const Clock& clock) const;

  // The archived form: a binary property list.
  std::vector<uint8_t> archive() const;
  // Reads an archive (binary or XML property list); none for anything that
  // is not a dictionary with both keys of the right types.
  static std::optional<KRCompressionSignature> unarchive(const void* data, size_t size);

  bool operator==(const KRCompressionSignature&) const = default;

 private:
  uint64_t uncompressedSize_;
  double lastCompressed_;
};

}  // namespace zephlore
