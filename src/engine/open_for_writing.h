// Whether a file may be written while the engine converts it.
//
// Only the kernel can say that nobody writes a file: a lease is granted only
// while no descriptor anywhere has the file open for writing, whoever's
// process holds it. /proc shows only the processes the caller may inspect
// (not other users'), so it may add writers, never clear the kernel's.
#pragma once

#include <sys/stat.h>

#include <string>

#include "platform/env.h"

namespace zephlore {

struct WriterCheck {
  bool busy = false;
  // For a busy file where the kernel could not be asked: why it counts as
  // busy (the refusal's detail).
  std::string why;
};

// Whether anybody, this process included, has the file behind the
// read-only descriptor `fd` open for writing. `writeLeased`: a write lease
// is held on `fd`, so nobody else has the file open at all. `path` names the
// file, for a look at its folder where the file system grants no lease.
WriterCheck checkWriters(Env& env, int fd, const struct stat& st, const std::string& path, bool writeLeased);

}  // namespace zephlore
