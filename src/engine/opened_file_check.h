// What the engine converts is the file it opened, whatever the name leads
// to by then: a file someone else put at the name after it was looked at
// must be refused on the descriptor's own fstat.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/error.h"

namespace zephlore {

enum class OwnerRule {
  // Compression: only the caller's own files, for root too.
  kCaller,
  // Expansion: root may expand anybody's file, which keeps its owner.
  kCallerOrRoot,
};

// A regular file with one name, owned as `rule` asks. Refuses into `error`
// otherwise (kHFSErrorNotRegularFile, kHFSErrorHardLinks, kHFSErrorNotOwned).
bool checkOpenedFile(const struct stat& st, const std::string& path, OwnerRule rule, Error* error);

}  // namespace zephlore
