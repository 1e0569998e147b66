// Temporary files, created only where no other user can interfere: a
// private per-user directory ($XDG_RUNTIME_DIR/zephlore where that is set,
// else "tmp" in the data folder the process's main found; mode 0700, checked
// to be ours), or names chosen by the caller beside a file. A symbolic link
// or a file of another user planted at a temporary name is never followed or
// written through; a leftover of our own from a crash is replaced.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

class TemporaryFiles {
 public:
  TemporaryFiles() = delete;

  // The private temporary directory, created when missing. None (with the
  // error) when no safe one can be had; never a shared directory such as /tmp.
  static std::optional<std::string> privateDirectory(Error* error = nullptr);

  struct Created {
    std::string path;
    UniqueFd fd;  // open read-write
  };
  // A new file `dir`/`prefix` + 6 random characters (mode 0600), like
  // mkstemp. `dir` defaults to the private directory.
  static std::optional<Created> create(Env& env, const std::string& prefix, Error* error,
                                       const std::string& dir = "");

  // Creates `path` afresh and opens it with `flags` (O_CREAT | O_EXCL are
  // added; never through a symbolic link), with the exclusive lock when
  // `lock` is set. A regular file of this user with a single link already
  // there is a leftover of ours and is removed first; anything else is
  // refused with EEXIST and left alone. Returns the descriptor or -1.
  static int createReplacingOwnLeftover(Env& env, const std::string& path, int flags, mode_t mode,
                                        bool lock, Error* error);

  // `length` random characters from [A-Za-z0-9].
  static std::string randomSuffix(size_t length);
};

}  // namespace zephlore
