#include "engine/tree_walker.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "engine/engine_temporaries.h"

namespace zephlore {
namespace {

// One open directory of the walk and the batch of its names being visited.
struct Level {
  int fd;
  std::vector<std::string> names;
  size_t next = 0;
  size_t path_length;  // length of this directory's path in the path buffer
};

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY;

}  // namespace

void TreeWalker::visitArgument(const std::string& root, const struct stat& st, WalkSkip skip,
                               WalkVisitor& visitor) {
  // Named relative to its parent's descriptor, so that the visitor's own
  // calls on it reach the same (possibly stored) file as the walk did.
  const size_t slash = root.rfind('/');
  const std::string name = slash == std::string::npos ? root : root.substr(slash + 1);
  const int parent = name.empty() || name == "." || name == ".."
                         ? -1
                         : env_.open(parentDirectory(root), O_PATH | O_DIRECTORY);
  if (parent < 0) {
    visitor.visit({root, AT_FDCWD, root.c_str(), &st, true}, skip);
    return;
  }
  visitor.visit({root, parent, name.c_str(), &st, true}, skip);
  env_.close(parent);
}

void TreeWalker::walk(const std::string& root, WalkVisitor& visitor) {
  if (stopped()) return;
  struct stat st;
  if (env_.lstat(root, &st) != 0) {
    visitor.walkError(root, errno, "stat", true);
    return;
  }
  if (!S_ISDIR(st.st_mode)) return visitArgument(root, st, WalkSkip::kNone, visitor);
  if (!options_.recursive) return visitArgument(root, st, WalkSkip::kDirectory, visitor);
  const dev_t volume = st.st_dev;
  // No link followed (Env::open): the argument was a directory a moment ago;
  // should it have been replaced by a link since, the open fails instead of
  // walking elsewhere.
  int fd = env_.open(root, kDirectoryFlags);
  if (fd < 0) {
    visitor.walkError(root, errno, "open directory", true);
    return;
  }

  std::string path = root;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::vector<Level> stack;
  stack.push_back({fd, {}, 0, path.size()});

  while (!stack.empty()) {
    if (stopped()) break;
    Level& level = stack.back();
    if (level.next == level.names.size()) {
      std::optional<std::vector<std::string>> batch = env_.readDirectory(level.fd);
      if (!batch || batch->empty()) {
        const int err = batch ? 0 : errno;
        path.resize(level.path_length);
        if (err != 0) visitor.walkError(path, err, "read directory", stack.size() == 1);
        env_.close(level.fd);
        stack.pop_back();
        continue;
      }
      level.names = std::move(*batch);
      level.next = 0;
    }
    const std::string& name = level.names[level.next++];
    path.resize(level.path_length);
    if (path.empty() || path.back() != '/') path += '/';
    path += name;

    const int parent = level.fd;
    if (env_.fstatAt(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      visitor.walkError(path, errno, "stat", false);
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      // The engine's own files beside a file being converted are never user files.
      const WalkSkip skip = EngineTemporaries::isTemporaryName(name.c_str()) ? WalkSkip::kEngineTemporary : WalkSkip::kNone;
      visitor.visit({path, parent, name.c_str(), &st, false}, skip);
      continue;
    }
    if (!options_.cross_volumes && st.st_dev != volume) {
      visitor.visit({path, parent, name.c_str(), &st, false}, WalkSkip::kOtherVolume);
      continue;
    }
    if (!visitor.shouldEnter({path, parent, name.c_str(), &st, false})) continue;
    fd = env_.openAt(parent, name, kDirectoryFlags);
    if (fd < 0) {
      visitor.walkError(path, errno, "open directory", false);
      continue;
    }
    // `level` and `name` may dangle after the push; nothing uses them past this point.
    stack.push_back({fd, {}, 0, path.size()});
  }
  for (const Level& level : stack) env_.close(level.fd);
}

}  // namespace zephlore
