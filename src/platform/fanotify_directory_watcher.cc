// The fanotify backend: one inode mark per directory, reporting the changed
// directory's file handle and the entry's name. Handles map back to paths
// through the table of marked directories. fanotify reports our own process
// id on the events we cause, so those are dropped here.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/directory_watcher.h"
#include "platform/path_map.h"

namespace zephlore {
namespace {

constexpr uint64_t kChildEvents = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_ATTRIB |
                                  FAN_CLOSE_WRITE | FAN_MODIFY | FAN_ONDIR | FAN_EVENT_ON_CHILD;
constexpr uint64_t kSelfEvents = FAN_DELETE_SELF | FAN_MOVE_SELF;

std::string handleKey(const void* fsid, const struct file_handle* fh) {
  std::string key(static_cast<const char*>(fsid), sizeof(fsid_t));
  key.append(reinterpret_cast<const char*>(&fh->handle_type), sizeof fh->handle_type);
  key.append(reinterpret_cast<const char*>(fh->f_handle), fh->handle_bytes);
  return key;
}

class FanotifyDirectoryWatcher final : public DirectoryWatcher {
 public:
  FanotifyDirectoryWatcher(Delegate& delegate, const PathMap& map, int fd) : DirectoryWatcher(delegate, map) { fd_ = fd; }

  const char* backendName() const override { return "fanotify"; }
  const char* limitFile() const override { return "/proc/sys/fs/fanotify/max_user_marks"; }

 protected:
  std::string mark(const std::string& shown) override {
    // Beneath a view, the stored directory is marked; the caller keeps the shown path.
    const std::string directory = access(shown);
    struct statfs sfs;
    union {
      struct file_handle fh;
      char space[sizeof(struct file_handle) + MAX_HANDLE_SZ];
    } handle;
    handle.fh.handle_bytes = MAX_HANDLE_SZ;
    int mount_id;
    if (statfs(directory.c_str(), &sfs) != 0 ||
        name_to_handle_at(AT_FDCWD, directory.c_str(), &handle.fh, &mount_id, 0) != 0) {
      return {};
    }
    if (fanotify_mark(fd_, FAN_MARK_ADD | FAN_MARK_ONLYDIR | FAN_MARK_DONT_FOLLOW, kChildEvents | kSelfEvents,
                      AT_FDCWD, directory.c_str()) != 0) {
      return {};
    }
    return handleKey(&sfs.f_fsid, &handle.fh);
  }

  // The mark goes with the inode; a directory that is gone cannot be named
  // to remove it, and one moved elsewhere under a root is marked again and
  // keeps its handle.
  void unmark(const std::string&) override {}

  bool readSome() override {
    alignas(struct fanotify_event_metadata) char buffer[64 * 1024];
    const ssize_t length = read(fd_, buffer, sizeof buffer);
    if (length <= 0) return false;
    const pid_t self = getpid();
    // Records carrying names are padded to 4 bytes only, so a record's header
    // (which holds 64-bit fields) is copied out rather than used in place.
    const size_t total = static_cast<size_t>(length);
    for (size_t offset = 0; offset + sizeof(struct fanotify_event_metadata) <= total;) {
      struct fanotify_event_metadata md;
      memcpy(&md, buffer + offset, sizeof md);
      if (md.event_len < sizeof md || offset + md.event_len > total) break;
      if (md.mask & FAN_Q_OVERFLOW) {
        delegate_.eventsDropped();
      } else {
        handle(md, buffer + offset, md.pid == self);
      }
      offset += md.event_len;
    }
    return true;
  }

 private:
  void handle(const struct fanotify_event_metadata& md, const char* record, bool own) {
    const char* p = record + md.metadata_len;
    const char* end = record + md.event_len;
    while (p + sizeof(struct fanotify_event_info_header) <= end) {
      const auto* info = reinterpret_cast<const struct fanotify_event_info_fid*>(p);
      if (info->hdr.len == 0) break;
      const uint8_t type = info->hdr.info_type;
      if (type == FAN_EVENT_INFO_TYPE_DFID_NAME || type == FAN_EVENT_INFO_TYPE_DFID ||
          type == FAN_EVENT_INFO_TYPE_FID) {
        const auto* fh = reinterpret_cast<const struct file_handle*>(info->handle);
        const std::string key = handleKey(&info->fsid, fh);
        const char* name = type == FAN_EVENT_INFO_TYPE_DFID_NAME
                               ? reinterpret_cast<const char*>(fh->f_handle) + fh->handle_bytes
                               : nullptr;
        apply(md.mask, key, name, own);
        return;
      }
      p += info->hdr.len;
    }
  }

  void apply(uint64_t mask, const std::string& key, const char* name, bool own) {
    const std::string* found = pathForKey(key);
    if (!found) return;  // a directory forgotten since
    const std::string dir = *found;
    if (mask & kSelfEvents) {
      if (isRoot(dir)) {
        rootEvent(key);
      } else if (mask & FAN_DELETE_SELF) {
        directoryGone(dir);
      }
      return;
    }
    const bool named = name && name[0] && strcmp(name, ".") != 0;
    const std::string child = named ? childPath(dir, name) : std::string();
    if (named && (mask & FAN_ONDIR)) {
      if (mask & (FAN_DELETE | FAN_MOVED_FROM)) directoryGone(child);
      if (mask & (FAN_CREATE | FAN_MOVED_TO)) directoryAppeared(child, !own);
    }
    if (!own) changed(dir);
  }
};

}  // namespace

std::unique_ptr<DirectoryWatcher> makeFanotifyWatcher(DirectoryWatcher::Delegate& delegate, const PathMap& map) {
  const int fd = fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_NONBLOCK | FAN_CLOEXEC, O_RDONLY);
  if (fd < 0) return nullptr;
  return std::make_unique<FanotifyDirectoryWatcher>(delegate, map, fd);
}

}  // namespace zephlore
