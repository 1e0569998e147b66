#include "base/ellipsize.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/utf8.h"

namespace zephlore {
namespace {

// Length in bytes of the line terminator at `pos`, or 0.
size_t terminatorAt(const std::string& s, size_t pos) {
  const unsigned char c = static_cast<unsigned char>(s[pos]);
  if (c == '\r') return pos + 1 < s.size() && s[pos + 1] == '\n' ? 2 : 1;
  if (c == '\n') return 1;
  if (c == 0xC2 && pos + 1 < s.size() && static_cast<unsigned char>(s[pos + 1]) == 0x85) return 2;
  if (c == 0xE2 && pos + 2 < s.size() && static_cast<unsigned char>(s[pos + 1]) == 0x80 &&
      (static_cast<unsigned char>(s[pos + 2]) == 0xA8 ||
       static_cast<unsigned char>(s[pos + 2]) == 0xA9)) {
    return 3;
  }
  return 0;
}

// Byte length of the UTF-8 character at `pos`; a malformed one is 1 byte.
size_t characterLength(const std::string& s, size_t pos) {
  const size_t n = utf8SequenceAt(s, pos);
  return n == 0 ? 1 : n;
}

std::vector<size_t> characterStarts(const std::string& s) {
  std::vector<size_t> starts;
  for (size_t pos = 0; pos < s.size(); pos += characterLength(s, pos)) starts.push_back(pos);
  return starts;
}

// wcwidth() needs a UTF-8 locale whatever the process's own one is.
locale_t utf8Locale() {
  static locale_t locale = [] {
    locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    return l ? l : newlocale(LC_CTYPE_MASK, "C.utf8", static_cast<locale_t>(0));
  }();
  return locale;
}

double lineColumns(const std::string& line) {
  const locale_t utf8 = utf8Locale();
  const locale_t previous = utf8 ? uselocale(utf8) : static_cast<locale_t>(0);
  double columns = 0;
  mbstate_t state;
  for (size_t pos = 0; pos < line.size();) {
    memset(&state, 0, sizeof state);
    wchar_t wc;
    const size_t n = mbrtowc(&wc, line.data() + pos, line.size() - pos, &state);
    if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0) {
      columns += 1;  // shown as one replacement mark
      pos += 1;
      continue;
    }
    const int w = wcwidth(wc);
    columns += w > 0 ? w : 0;  // control characters take no column
    pos += n;
  }
  if (utf8) uselocale(previous);
  return columns;
}

}  // namespace

double terminalColumns(const std::string& text, const TextAttributes&) {
  double widest = 0;
  size_t start = 0;
  for (size_t pos = 0; pos <= text.size();) {
    const size_t term = pos < text.size() ? terminatorAt(text, pos) : 0;
    if (pos == text.size() || term) {
      widest = std::max(widest, lineColumns(text.substr(start, pos - start)));
      if (pos == text.size()) break;
      pos += term;
      start = pos;
    } else {
      ++pos;
    }
  }
  return widest;
}

void ellipsizeToFitWidth(AttributedString& text, float width, const TextMeasure& measure) {
  const double target = width;
  if (measure(text.string, text.attributes) <= target) return;

  // Each line runs through its terminator; a final "\r" is left out of the
  // line, other terminators stay in it.
  struct Line {
    size_t start, length;
  };
  std::vector<Line> lines;
  const std::string& s = text.string;
  for (size_t start = 0; start < s.size();) {
    size_t pos = start, term = 0;
    while (pos < s.size() && !(term = terminatorAt(s, pos))) pos += characterLength(s, pos);
    const size_t end = pos + term;
    size_t length = end - start;
    if (length > 0 && s[end - 1] == '\r') --length;
    lines.push_back({start, length});
    start = end;
  }

  const std::string copy = std::move(text.string);
  text.string.clear();
  for (const Line& line : lines) {
    std::string slice = copy.substr(line.start, line.length);
    while (!slice.empty() && measure(slice, text.attributes) > target) {
      const std::vector<size_t> starts = characterStarts(slice);
      if (starts.size() >= 4) {
        slice.replace(starts[starts.size() - 4], std::string::npos, "...");
      } else if (slice == "...") {
        slice.clear();  // not even the ellipsis fits: the line is exhausted
      } else {
        slice = "...";
      }
    }
    text.string += slice;
    text.string += '\r';
  }
  if (!text.string.empty() && text.string.back() == '\r') text.string.pop_back();
}

AttributedString mutableEllipsizedStringFrom(const std::string& text,
                                             const TextAttributes& attributes, float width,
                                             const TextMeasure& measure) {
  AttributedString result{text, attributes};
  if (static_cast<double>(width) > measure("...", attributes)) {
    ellipsizeToFitWidth(result, width, measure);
  }
  return result;
}

}  // namespace zephlore
