#include "cli/files/display_name.h"

#include <cstdint>

#include "base/utf8.h"

namespace zephlore::cli {
namespace {

void appendHexEscape(std::string& out, unsigned char b) {
  static const char kDigits[] = "0123456789abcdef";
  out += "\\x";
  out += kDigits[b >> 4];
  out += kDigits[b & 0xF];
}

}  // namespace

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
