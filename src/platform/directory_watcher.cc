#include "platform/directory_watcher.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/path_map.h"

namespace zephlore {

std::unique_ptr<DirectoryWatcher> makeFanotifyWatcher(DirectoryWatcher::Delegate& delegate, const PathMap& map);
std::unique_ptr<DirectoryWatcher> makeInotifyWatcher(DirectoryWatcher::Delegate& delegate, const PathMap& map,
                                                     OwnRewrites* own);

namespace {

bool under(const std::string& path, const std::string& dir) {
  return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
         (path[dir.size()] == '/' || dir == "/");
}

}  // namespace

std::unique_ptr<DirectoryWatcher> DirectoryWatcher::create(Delegate& delegate, const PathMap& map, Kind kind,
                                                           OwnRewrites* own) {
  if (kind != Kind::kInotify) {
    if (auto watcher = makeFanotifyWatcher(delegate, map)) return watcher;
    if (kind == Kind::kFanotify) return nullptr;
  }
  if (auto watcher = makeInotifyWatcher(delegate, map, own)) return watcher;
  KRLog("*** Neither fanotify nor inotify is available (%s): folders are only swept", strerror(errno));
  return nullptr;
}

std::string DirectoryWatcher::childPath(const std::string& dir, const char* name) {
  std::string path = dir;
  if (path.empty() || path.back() != '/') path += '/';
  path += name;
  return path;
}

DirectoryWatcher::~DirectoryWatcher() {
  if (fd_ >= 0) close(fd_);
}

bool DirectoryWatcher::addRoot(const std::string& root) {
  struct stat st;
  if (lstat(access(root).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return true;  // nothing to mark yet
  roots_.push_back(root);
  devices_[root] = st.st_dev;
  return markTree(root, root, false);
}

bool DirectoryWatcher::markTree(const std::string& top, const std::string& root, bool newly_appeared) {
  const uint64_t device = devices_[root];
  std::vector<std::string> todo{top};
  bool complete = true;
  while (!todo.empty()) {
    std::string dir = std::move(todo.back());
    todo.pop_back();
    if (!paths_.count(dir)) {
      errno = 0;
      std::string key = mark(dir);
      if (key.empty()) {
        if (errno == ENOSPC) {
          complete = false;
          if (!limit_reported_[root]) {
            limit_reported_[root] = true;
            KRLog("*** Cannot watch every folder under %s: the limit in %s is reached. Raise it (e.g. "
                  "sysctl %s=...); until then this folder is re-checked every 30 minutes",
                  root.c_str(), limitFile(), limitFile() + strlen("/proc/sys/"));
            delegate_.markLimitReached(root);
          }
          break;
        }
        continue;  // vanished or unreadable: nothing to watch there
      }
      keys_[key] = dir;
      paths_[dir] = key;
    }
    // Whatever was created in it before the mark took hold is found this way.
    if (newly_appeared) delegate_.directoryChanged(dir, device);
    const std::string reached = access(dir);
    DIR* d = opendir(reached.c_str());
    if (!d) continue;
    while (struct dirent* e = readdir(d)) {
      if (e->d_type != DT_DIR && e->d_type != DT_UNKNOWN) continue;
      if (e->d_name[0] == '.' && (e->d_name[1] == 0 || (e->d_name[1] == '.' && e->d_name[2] == 0))) continue;
      std::string child = childPath(dir, e->d_name);
      struct stat st;
      if (lstat(childPath(reached, e->d_name).c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_dev != device) {
        continue;
      }
      todo.push_back(std::move(child));
    }
    closedir(d);
  }
  return complete;
}

void DirectoryWatcher::readEvents() {
  while (readSome()) {
  }
}

const std::string* DirectoryWatcher::pathForKey(const std::string& key) const {
  auto it = keys_.find(key);
  return it == keys_.end() ? nullptr : &it->second;
}

std::string DirectoryWatcher::rootOf(const std::string& path) const {
  std::string best;
  for (const std::string& root : roots_) {
    if ((path == root || under(path, root)) && root.size() > best.size()) best = root;
  }
  return best;
}

bool DirectoryWatcher::isRoot(const std::string& path) const {
  for (const std::string& root : roots_) {
    if (root == path) return true;
  }
  return false;
}

void DirectoryWatcher::changed(const std::string& directory) {
  const std::string root = rootOf(directory);
  if (root.empty()) return;
  delegate_.directoryChanged(directory, devices_[root]);
}

void DirectoryWatcher::directoryAppeared(const std::string& path, bool report) {
  const std::string root = rootOf(path);
  if (root.empty()) return;
  struct stat st;
  if (lstat(access(path).c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
      st.st_dev != devices_[root]) {
    return;
  }
  markTree(path, root, report);
}

void DirectoryWatcher::directoryGone(const std::string& path) {
  for (auto it = paths_.lower_bound(path); it != paths_.end() && (it->first == path || under(it->first, path));) {
    if (!isRoot(it->first)) {
      unmark(it->second);
      keys_.erase(it->second);
      it = paths_.erase(it);
    } else {
      ++it;
    }
  }
}

void DirectoryWatcher::rootEvent(const std::string& key) {
  const std::string* path = pathForKey(key);
  if (path && isRoot(*path)) delegate_.rootChanged(*path);
}

}  // namespace zephlore
