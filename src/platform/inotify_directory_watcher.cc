// The inotify backend, for kernels or containers that refuse fanotify. One
// watch per directory; inotify does not say who caused an event, so the
// events on files this process is rewriting (OwnRewrites) are dropped.
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/directory_watcher.h"
#include "platform/own_rewrites.h"
#include "platform/path_map.h"

namespace zephlore {
namespace {

constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_CLOSE_WRITE |
                             IN_MODIFY | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;

std::string keyFor(int wd) { return std::to_string(wd); }

class InotifyDirectoryWatcher final : public DirectoryWatcher {
 public:
  InotifyDirectoryWatcher(Delegate& delegate, const PathMap& map, int fd, OwnRewrites* own)
      : DirectoryWatcher(delegate, map), own_(own ? *own : none_) {
    fd_ = fd;
  }

  const char* backendName() const override { return "inotify"; }
  const char* limitFile() const override { return "/proc/sys/fs/inotify/max_user_watches"; }

 protected:
  std::string mark(const std::string& directory) override {
    const int wd = inotify_add_watch(fd_, access(directory).c_str(), kEvents);
    return wd < 0 ? std::string() : keyFor(wd);
  }

  void unmark(const std::string& key) override { inotify_rm_watch(fd_, std::stoi(key)); }

  bool readSome() override {
    OwnRewrites& own = own_;
    const uint64_t pass = own.passBegins();
    alignas(struct inotify_event) char buffer[64 * 1024];
    const ssize_t length = read(fd_, buffer, sizeof buffer);
    if (length <= 0) {
      own.forgetEndedBefore(pass);
      return false;
    }
    for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(struct inotify_event)) <= length;) {
      const auto* e = reinterpret_cast<const struct inotify_event*>(buffer + offset);
      offset += static_cast<ssize_t>(sizeof(struct inotify_event) + e->len);
      if (e->mask & IN_Q_OVERFLOW) {
        delegate_.eventsDropped();
        continue;
      }
      const std::string* found = pathForKey(keyFor(e->wd));
      if (!found) continue;
      const std::string dir = *found;
      if (e->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
        if (isRoot(dir)) {
          rootEvent(keyFor(e->wd));
        } else if (e->mask & IN_DELETE_SELF) {
          directoryGone(dir);
        }
        continue;
      }
      if (e->mask & IN_IGNORED) continue;
      const std::string name = e->len ? std::string(e->name) : std::string();
      if (!name.empty() && (e->mask & IN_ISDIR)) {
        const std::string child = childPath(dir, name.c_str());
        if (e->mask & (IN_DELETE | IN_MOVED_FROM)) directoryGone(child);
        if (e->mask & (IN_CREATE | IN_MOVED_TO)) directoryAppeared(child);
      }
      if (!name.empty() && own.covers(dir, name)) continue;
      changed(dir);
    }
    return true;
  }

 private:
  OwnRewrites none_;  // stands in when the caller keeps no list
  OwnRewrites& own_;
};

}  // namespace

std::unique_ptr<DirectoryWatcher> makeInotifyWatcher(DirectoryWatcher::Delegate& delegate, const PathMap& map,
                                                     OwnRewrites* own) {
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) return nullptr;
  return std::make_unique<InotifyDirectoryWatcher>(delegate, map, fd, own);
}

}  // namespace zephlore
