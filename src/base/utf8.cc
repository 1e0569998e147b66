#include "base/utf8.h"

namespace zephlore {

size_t utf8SequenceAt(std::string_view text, size_t i, uint32_t* codePoint) {
  const auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
  const uint8_t lead = byte(i);
  size_t length;
  uint32_t min, code;
  if (lead < 0x80) {
    length = 1, min = 0, code = lead;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, min = 0x80, code = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, min = 0x800, code = lead & 0x0F;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, min = 0x10000, code = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() - i < length) return 0;
  for (size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    code = (code << 6) | (byte(i + k) & 0x3F);
  }
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  if (codePoint) *codePoint = code;
  return length;
}

bool isValidUTF8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const size_t length = utf8SequenceAt(text, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

}  // namespace zephlore
