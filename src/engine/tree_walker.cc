#include "engine/tree_walker.h"

#include "engine/engine_temporaries.h"
#include "platform/path_map.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace zephlore {
namespace {

struct Level {
  DIR* dir;
  size_t path_length;  // length of this directory's path in the path buffer
};

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

}  // namespace

void TreeWalker::walk(const std::string& root, WalkVisitor& visitor) {
  if (stopped()) return;
  // Beneath a view, the stored files are walked; entries keep the shown paths.
  const std::string access = PathMap::shared().toAccess(root);
  struct stat st;
  if (lstat(access.c_str(), &st) != 0) {
    visitor.walkError(root, errno, "stat", true);
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    visitor.visit({root, AT_FDCWD, access.c_str(), &st, true}, WalkSkip::kNone);
    return;
  }
  if (!options_.recursive) {
    visitor.visit({root, AT_FDCWD, access.c_str(), &st, true}, WalkSkip::kDirectory);
    return;
  }
  const dev_t volume = st.st_dev;
  // O_NOFOLLOW: the argument was a directory a moment ago; should it have been
  // replaced by a link since, the open fails instead of walking elsewhere.
  int fd = open(access.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
  if (!dir) {
    const int err = errno;
    if (fd >= 0) close(fd);
    visitor.walkError(root, err, "open directory", true);
    return;
  }

  std::string path = root;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::vector<Level> stack;
  stack.push_back({dir, path.size()});

  while (!stack.empty()) {
    if (stopped()) break;
    Level& level = stack.back();
    errno = 0;
    struct dirent* d = readdir(level.dir);
    if (!d) {
      const int err = errno;
      path.resize(level.path_length);
      if (err != 0) visitor.walkError(path, err, "read directory", stack.size() == 1);
      closedir(level.dir);
      stack.pop_back();
      continue;
    }
    if (isDotOrDotDot(d->d_name)) continue;
    path.resize(level.path_length);
    if (path.empty() || path.back() != '/') path += '/';
    path += d->d_name;

    const int parent = dirfd(level.dir);
    if (fstatat(parent, d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      visitor.walkError(path, errno, "stat", false);
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      // The engine's own files beside a file being converted are never user files.
      const WalkSkip skip = EngineTemporaries::isTemporaryName(d->d_name) ? WalkSkip::kEngineTemporary : WalkSkip::kNone;
      visitor.visit({path, parent, d->d_name, &st, false}, skip);
      continue;
    }
    if (!options_.cross_volumes && st.st_dev != volume) {
      visitor.visit({path, parent, d->d_name, &st, false}, WalkSkip::kOtherVolume);
      continue;
    }
    if (!visitor.shouldEnter({path, parent, d->d_name, &st, false})) continue;
    fd = openat(parent, d->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR* child = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!child) {
      const int err = errno;
      if (fd >= 0) close(fd);
      visitor.walkError(path, err, "open directory", false);
      continue;
    }
    // `level` may dangle after the push; nothing uses it past this point.
    stack.push_back({child, path.size()});
  }
  for (const Level& level : stack) closedir(level.dir);
}

}  // namespace zephlore
