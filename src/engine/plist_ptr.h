// Owns a libplist tree (a root node and everything below it): the one owner
// type of every layer that reads or builds property lists.
#pragma once

#include <plist/plist.h>

#include <memory>

namespace zephlore {

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

}  // namespace zephlore
