// QVFileManager: the file-manager services the engine relies on: temporary
// files on the right volume and copying a file's extended attributes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/env.h"

namespace zephlore {

class QVFileManager {
 public:
  QVFileManager() = delete;

  // A new file "QVS-tmp.XXXXXX" in the private temporary directory, open
  // read-write in *fd; none and *fd = -1 on failure.
  static std::optional<std::string> createTemporaryFile(Env& env, int* fd);

  // A name only; nothing is created. H is "QVS-tmp-<hash of the path>".
  // An existing path on another volume than the private temporary directory
  // (or when there is none) gets its temporary copy beside it, "<path>.H",
  // so that a rename can swap it in; otherwise the name is H inside the
  // private temporary directory. Never a name in a shared directory.
  static std::string getTemporaryFileNameBasedOnExistingPath(Env& env, const std::string& path);
  // The hash in H: FNV-1a, stable across runs.
  static uint32_t temporaryNameHash(const std::string& path);

  // Copies every extended attribute of `from` to `to` (neither following a
  // final link), except the names in `skipping`, compared without regard to
  // case; skipping "com.apple.ResourceFork" skips its further pieces too.
  // Every attribute is tried; true only if every one was copied.
  static bool copyExtendedAttributesFromTo(Env& env, const std::string& from, const std::string& to);
  static bool copyExtendedAttributesFromToSkipping(Env& env, const std::string& from, const std::string& to,
                                                   const std::vector<std::string>& skipping);
};

}  // namespace zephlore
