#include "platform/file_event_stream.h"

#include <poll.h>
#include <sys/stat.h>

#include "base/log.h"
#include "platform/path_map.h"

namespace zephlore {

namespace {

const PathMap& noViews() {
  static const PathMap* map = new PathMap;  // empty; never destroyed
  return *map;
}

}  // namespace

FileEventStream::FileEventStream(RunLoop& loop, EventJournal& journal, Options options, Callback callback)
    : loop_(loop), journal_(journal), options_(std::move(options)), callback_(std::move(callback)) {}

FileEventStream::~FileEventStream() { stop(); }

bool FileEventStream::start() {
  if (running_) return true;
  const PathMap& map = options_.map ? *options_.map : noViews();
  watcher_ = DirectoryWatcher::create(*this, map, options_.backend, options_.ownRewrites);
  if (!watcher_) return false;
  running_ = true;
  for (const std::string& root : options_.roots) {
    struct stat st;
    root_devices_[root] = lstat(map.toAccess(root).c_str(), &st) == 0 ? st.st_dev : 0;
    watcher_->addRoot(root);
  }
  watch_ = loop_.watchFd(watcher_->fd(), POLLIN, [this](short) {
    if (watcher_) watcher_->readEvents();
  });
  if (options_.since != kFileEventIdSinceNow) {
    replay_timer_ = loop_.performAfterDelay(Duration(0), [this] {
      replay_timer_ = 0;
      deliverReplay();
    });
  }
  return true;
}

void FileEventStream::stop() {
  if (!running_) return;
  running_ = false;
  loop_.unwatchFd(watch_);
  watch_ = 0;
  for (RunLoop::TimerId id : {flush_timer_, replay_timer_}) {
    if (id) loop_.cancel(id);
  }
  for (RunLoop::TimerId id : recheck_timers_) loop_.cancel(id);
  recheck_timers_.clear();
  flush_timer_ = replay_timer_ = 0;
  pending_.clear();
  pending_order_.clear();
  watcher_.reset();
}

void FileEventStream::deliverReplay() {
  std::vector<FileEvent> events = journal_.eventsAfter(options_.since, options_.roots);
  for (const std::string& root : options_.roots) {
    events.push_back({root, kFileEventMustScanSubDirs | kFileEventHistoryDone, journal_.takeId()});
  }
  if (!events.empty()) callback_(events);
}

void FileEventStream::add(const std::string& path, uint32_t flags, uint64_t device) {
  if (!running_) return;
  auto [it, inserted] = pending_.try_emplace(path, flags, device);
  if (inserted) {
    pending_order_.push_back(path);
  } else {
    it->second.first |= flags;
  }
  if (!flush_timer_) {
    flush_timer_ = loop_.performAfterDelay(options_.latency, [this] {
      flush_timer_ = 0;
      flush();
    });
  }
}

void FileEventStream::flush() {
  if (flush_timer_) {
    loop_.cancel(flush_timer_);
    flush_timer_ = 0;
  }
  if (watcher_) watcher_->readEvents();
  if (pending_order_.empty()) return;
  std::vector<FileEvent> events;
  std::vector<uint64_t> devices;
  events.reserve(pending_order_.size());
  for (const std::string& path : pending_order_) {
    const auto& [flags, device] = pending_[path];
    events.push_back({path, flags, 0});
    devices.push_back(device);
  }
  pending_.clear();
  pending_order_.clear();
  const auto wall = std::chrono::duration_cast<std::chrono::nanoseconds>(
      loop_.clock().wallNow().time_since_epoch());
  journal_.record(events, devices, wall.count());
  callback_(events);
}

void FileEventStream::directoryChanged(const std::string& directory, uint64_t device) {
  add(directory, kFileEventNone, device);
}

void FileEventStream::rootChanged(const std::string& root) { add(root, kFileEventRootChanged, root_devices_[root]); }

void FileEventStream::eventsDropped() {
  for (const std::string& root : options_.roots) {
    add(root, kFileEventMustScanSubDirs | kFileEventKernelDropped, root_devices_[root]);
  }
}

void FileEventStream::markLimitReached(const std::string& root) {
  recheck_timers_.push_back(loop_.scheduleRepeating(kLimitedRootRecheck, [this, root] {
    add(root, kFileEventMustScanSubDirs, root_devices_[root]);
  }));
}

}  // namespace zephlore
