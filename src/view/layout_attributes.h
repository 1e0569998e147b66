// The attributes that make up the compressed layout (the header, the fork
// pieces and the flags word). The view hides them: a program copying a file
// out of the view must get its content alone, never the fork beside it.
#pragma once

#include <cstddef>

namespace zephlore::view {

// `name` is a Linux attribute name as a program passes it ("user.com.apple.decmpfs").
bool isLayoutAttribute(const char* name);

// Removes the layout names from a listxattr(2) buffer of `size` bytes
// (names each ended by a zero) in place; returns the bytes that remain.
size_t removeLayoutAttributes(char* list, size_t size);

}  // namespace zephlore::view
