#include "cli/files/display_name.h"

#include <cstdint>

namespace zephlore::cli {
namespace {

// Length of the well-formed UTF-8 sequence starting at text[i], or 0 when the
// bytes there are not one. Writes the code point to *cp.
size_t utf8SequenceAt(std::string_view text, size_t i, uint32_t* cp) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char b0 = byte(i);
  if (b0 < 0x80) {
    *cp = b0;
    return 1;
  }
  size_t len;
  uint32_t value;
  uint32_t min;
  if ((b0 & 0xE0) == 0xC0) {
    len = 2, value = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    len = 3, value = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    len = 4, value = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (i + len > text.size()) return 0;
  for (size_t k = 1; k < len; ++k) {
    const unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) return 0;
    value = (value << 6) | (b & 0x3F);
  }
  if (value < min || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  *cp = value;
  return len;
}

void appendHexEscape(std::string& out, unsigned char b) {
  static const char kDigits[] = "0123456789abcdef";
  out += "\\x";
  out += kDigits[b >> 4];
  out += kDigits[b & 0xF];
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  uint32_t cp;
  for (size_t i = 0; i < text.size();) {
    const size_t len = utf8SequenceAt(text, i, &cp);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

std::string escapeForTerminal(std::string_view name) {
  std::string out;
  out.reserve(name.size());
  uint32_t cp;
  for (size_t i = 0; i < name.size();) {
    const size_t len = utf8SequenceAt(name, i, &cp);
    if (len == 0) {
      appendHexEscape(out, static_cast<unsigned char>(name[i]));
      ++i;
      continue;
    }
    if (cp == '\\') {
      out += "\\\\";
    } else if (cp == '\n') {
      out += "\\n";
    } else if (cp == '\t') {
      out += "\\t";
    } else if (cp == '\r') {
      out += "\\r";
    } else if (cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp < 0xA0)) {
      // C1 controls are two bytes in UTF-8; escape each so that a terminal
      // never acts on them.
      for (size_t k = 0; k < len; ++k) appendHexEscape(out, static_cast<unsigned char>(name[i + k]));
    } else {
      out.append(name.substr(i, len));
    }
    i += len;
  }
  return out;
}

std::string lossyUtf8(std::string_view name) {
  std::string out;
  out.reserve(name.size());
  uint32_t cp;
  for (size_t i = 0; i < name.size();) {
    const size_t len = utf8SequenceAt(name, i, &cp);
    if (len == 0) {
      out += "\xEF\xBF\xBD";  // U+FFFD
      ++i;
    } else {
      out.append(name.substr(i, len));
      i += len;
    }
  }
  return out;
}

std::string hexBytes(std::string_view bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 0xF];
  }
  return out;
}

}  // namespace zephlore::cli
