// UTF-8 validity, for names and strings that must survive a round trip
// through text (attribute strings, recorded paths).
#pragma once

#include <string_view>

namespace zephlore {

// Well-formed UTF-8: no stray continuation bytes, no over-long forms, no
// surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text);

}  // namespace zephlore
