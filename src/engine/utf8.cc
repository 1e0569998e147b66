#include "engine/utf8.h"

#include <cstdint>

namespace zephlore {

bool isValidUTF8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
    const uint8_t lead = byte(i);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    size_t length;
    uint32_t min, code;
    if ((lead & 0xE0) == 0xC0) {
      length = 2, min = 0x80, code = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, min = 0x800, code = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, min = 0x10000, code = lead & 0x07;
    } else {
      return false;
    }
    if (text.size() - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((byte(i + k) & 0xC0) != 0x80) return false;
      code = (code << 6) | (byte(i + k) & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

}  // namespace zephlore
