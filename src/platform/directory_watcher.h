// The kernel side of the file event stream: marks every directory under the
// roots and turns the kernel's events into "this directory changed". Two
// backends behind this one interface: fanotify (a normal user may use it
// since Linux 5.13) and inotify where fanotify is refused (old kernels, some
// containers).
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/path_map.h"

namespace zephlore {

class OwnRewrites;

class DirectoryWatcher {
 public:
  class Delegate {
   public:
    virtual ~Delegate() = default;
    virtual void directoryChanged(const std::string& directory, uint64_t device) = 0;
    virtual void rootChanged(const std::string& root) = 0;
    // The kernel dropped events: every root needs a full re-check.
    virtual void eventsDropped() = 0;
    // Not every directory under `root` could be marked.
    virtual void markLimitReached(const std::string& root) = 0;
  };

  enum class Kind { kAny, kFanotify, kInotify };

  // fanotify where the kernel allows it, else inotify (kAny); null when
  // neither can be had (one log line). Directories are reached through `map`
  // (beneath the views), which must outlive the watcher; events name the
  // shown paths. Where the kernel does not name the process behind an event
  // (inotify), the events on the files in `own` are dropped (none: none is).
  static std::unique_ptr<DirectoryWatcher> create(Delegate& delegate, const PathMap& map, Kind kind = Kind::kAny,
                                                  OwnRewrites* own = nullptr);
  virtual ~DirectoryWatcher();

  virtual const char* backendName() const = 0;
  // The descriptor to poll for input; readEvents() drains it.
  int fd() const { return fd_; }
  // Marks `root` and every directory below it. Returns false when a mark was
  // refused for the limit (reported once through markLimitReached).
  bool addRoot(const std::string& root);
  void readEvents();
  size_t markedDirectories() const { return paths_.size(); }
  // The file that sets the mark limit, for the log line.
  virtual const char* limitFile() const = 0;

 protected:
  DirectoryWatcher(Delegate& delegate, const PathMap& map) : delegate_(delegate), map_(map) {}
  // Where this process reaches the shown directory `path`.
  std::string access(const std::string& path) const { return map_.toAccess(path); }

  // One directory's mark: returns its key (a file handle, a watch id) or an
  // empty key with errno set.
  virtual std::string mark(const std::string& directory) = 0;
  virtual void unmark(const std::string& key) = 0;
  // Reads what is queued; returns false on EAGAIN.
  virtual bool readSome() = 0;

  // `name` inside the directory `dir`.
  static std::string childPath(const std::string& dir, const char* name);

  // For the backends' readSome().
  const std::string* pathForKey(const std::string& key) const;
  void changed(const std::string& directory);
  // Marks a directory that appeared and, when `report`, reports it and
  // everything below it as changed.
  void directoryAppeared(const std::string& path, bool report = true);
  void directoryGone(const std::string& path);
  void rootEvent(const std::string& key);
  bool isRoot(const std::string& path) const;

  Delegate& delegate_;
  const PathMap& map_;
  int fd_ = -1;

 private:
  // Marks `directory` and below; newly_appeared reports each as changed.
  bool markTree(const std::string& directory, const std::string& root, bool newly_appeared);
  std::string rootOf(const std::string& path) const;

  std::map<std::string, std::string> keys_;   // key -> directory path
  std::map<std::string, std::string> paths_;  // directory path -> key
  std::map<std::string, uint64_t> devices_;   // root -> its device
  std::vector<std::string> roots_;
  std::map<std::string, bool> limit_reported_;  // root -> told
};

}  // namespace zephlore
