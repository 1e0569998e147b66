// UTF-8, decoded and checked in one place: for names and strings that must
// survive a round trip through text (attribute strings, recorded paths,
// JSON), and for cutting or escaping text by characters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zephlore {

// The length of the well-formed UTF-8 sequence at text[i] (1-4), or 0 when
// the bytes there are not one: a stray continuation byte, an over-long form,
// a surrogate, a value above U+10FFFF, or a sequence cut short. Its code
// point goes to *codePoint when given.
size_t utf8SequenceAt(std::string_view text, size_t i, uint32_t* codePoint = nullptr);

// Every byte belongs to a well-formed sequence.
bool isValidUTF8(std::string_view text);

}  // namespace zephlore
