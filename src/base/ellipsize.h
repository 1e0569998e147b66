// Shortening text to a width, ending over-long lines in "...". Width is
// measured through a pluggable function; the default counts terminal display
// columns (a CJK character is 2, a combining mark 0), since Linux has no one
// text-drawing service to ask. Kept for the status item's menu, whose
// entries must fit the menu's width.
#pragma once

#include <functional>
#include <map>
#include <string>

namespace zephlore {

// Attributes for the whole text (font, colour, ...), passed to the measure.
using TextAttributes = std::map<std::string, std::string>;

struct AttributedString {
  std::string string;  // UTF-8; invalid bytes count as one character each
  TextAttributes attributes;

  bool operator==(const AttributedString&) const = default;
};

using TextMeasure = std::function<double(const std::string& text, const TextAttributes&)>;

// Display columns of the widest line of `text` (attributes are ignored).
double terminalColumns(const std::string& text, const TextAttributes& attributes = {});

// Shortens each line of `text` that is wider than `width` by replacing its
// tail with "..." until it fits. Lines end at "\r" (dropped and restored),
// "\n", "\r\n", U+0085, U+2028 and U+2029 (those stay in the line). A target
// narrower than "..." exhausts the line.
void ellipsizeToFitWidth(AttributedString& text, float width,
                         const TextMeasure& measure = terminalColumns);

// A new string from `text` and `attributes`, shortened to `width` when that
// is wider than "..." (else returned whole).
AttributedString mutableEllipsizedStringFrom(const std::string& text,
                                             const TextAttributes& attributes, float width,
                                             const TextMeasure& measure = terminalColumns);

}  // namespace zephlore
