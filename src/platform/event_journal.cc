#include "platform/event_journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "platform/config_file.h"

namespace zephlore {
namespace {

constexpr char kMagic[8] = {'Z', 'E', 'V', 'J', 'N', 'L', '0', '1'};
constexpr size_t kHeaderSize = 16;   // magic, next id
constexpr size_t kRecordFixed = 32;  // id, time, device, flags, path length
constexpr uint32_t kMaxPath = 4096;

uint32_t checksum(const unsigned char* data, size_t size) {
  uint32_t h = 2166136261u;  // FNV-1a: catches garbage, not an attacker
  for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 16777619u;
  return h;
}

template <typename T>
void put(std::string& out, T value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

template <typename T>
T get(const unsigned char* p) {
  T value;
  memcpy(&value, p, sizeof value);
  return value;
}

std::string encode(const EventJournal::Entry& e) {
  std::string out;
  put(out, e.id);
  put(out, e.time);
  put(out, e.device);
  put(out, e.flags);
  put(out, static_cast<uint32_t>(e.path.size()));
  out += e.path;
  put(out, checksum(reinterpret_cast<const unsigned char*>(out.data()), out.size()));
  return out;
}

bool writeAll(int fd, const std::string& data, off_t offset) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = pwrite(fd, data.data() + done, data.size() - done, offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool isUnder(const std::string& path, const std::string& root) {
  if (path.compare(0, root.size(), root) != 0) return false;
  return path.size() == root.size() || path[root.size()] == '/' || root == "/";
}

}  // namespace

EventJournal::EventJournal(Env& env, std::string path, size_t capacity)
    : path_(std::move(path)), capacity_(capacity) {
  // A link the user made to a regular file is kept: the journal is written
  // (and renamed over) where it leads.
  std::string refusal;
  std::optional<std::string> target = configWriteTarget(env, path_, &refusal);
  if (!target) {
    KRLog("The event journal %s is %s; left alone, event ids will not survive a restart", path_.c_str(),
          refusal.c_str());
    return;
  }
  const std::string given = path_;
  path_ = *target;
  // O_NONBLOCK: a FIFO put here after the check must not hold the open.
  fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (fd_ < 0) {
    KRLog("Cannot open the event journal %s (%s); event ids will not survive a restart", given.c_str(),
          strerror(errno));
    return;
  }
  struct stat st{};
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
    KRLog("The event journal %s is %s; left alone, event ids will not survive a restart", given.c_str(),
          (fileTypePhrase(st.st_mode) + ", not a regular file").c_str());
    close(fd_);
    fd_ = -1;
    return;
  }
  load();
}

EventJournal::~EventJournal() {
  if (fd_ >= 0) close(fd_);
}

void EventJournal::load() {
  struct stat st;
  if (fstat(fd_, &st) != 0) return;
  std::string data(static_cast<size_t>(st.st_size), '\0');
  size_t got = 0;
  while (got < data.size()) {
    ssize_t n = pread(fd_, data.data() + got, data.size() - got, static_cast<off_t>(got));
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  data.resize(got);
  if (data.empty()) {
    writeHeader();
    return;
  }
  const auto* p = reinterpret_cast<const unsigned char*>(data.data());
  if (data.size() < kHeaderSize || memcmp(p, kMagic, sizeof kMagic) != 0) {
    KRLog("The event journal %s is not one of ours; starting a new one", path_.c_str());
    rewrite();
    return;
  }
  next_id_ = std::max<uint64_t>(get<uint64_t>(p + 8), 1);
  size_t offset = kHeaderSize;
  bool damaged = false;
  uint64_t last_id = 0;
  while (offset < data.size()) {
    if (data.size() - offset < kRecordFixed + 4) {
      damaged = true;
      break;
    }
    Entry e;
    e.id = get<uint64_t>(p + offset);
    e.time = get<int64_t>(p + offset + 8);
    e.device = get<uint64_t>(p + offset + 16);
    e.flags = get<uint32_t>(p + offset + 24);
    const uint32_t length = get<uint32_t>(p + offset + 28);
    const size_t record = kRecordFixed + length + 4;
    if (length > kMaxPath || data.size() - offset < record ||
        checksum(p + offset, record - 4) != get<uint32_t>(p + offset + record - 4) || e.id <= last_id) {
      damaged = true;
      break;
    }
    e.path.assign(data, offset + kRecordFixed, length);
    last_id = e.id;
    entries_.push_back(std::move(e));
    offset += record;
  }
  if (damaged) {
    KRLog("The event journal %s is damaged after %zu entries; the rest is dropped", path_.c_str(),
          entries_.size());
  }
  if (last_id >= next_id_) {
    KRLog("The event journal %s holds ids above its counter; ids go on after them", path_.c_str());
    next_id_ = last_id + 1;
  }
  if (damaged || entries_.size() > capacity_) rewrite();
}

void EventJournal::writeHeader() {
  if (fd_ < 0) return;
  std::string header(kMagic, sizeof kMagic);
  put(header, next_id_);
  writeAll(fd_, header, 0);
}

void EventJournal::rewrite() {
  while (entries_.size() > capacity_) {
    reaches_back_to_ = entries_.front().time;
    entries_.pop_front();
  }
  if (fd_ < 0) return;
  // Written beside the journal and renamed over it: a crash keeps either.
  const std::string temp = path_ + ".new";
  int fd = open(temp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return;
  std::string data(kMagic, sizeof kMagic);
  put(data, next_id_);
  for (const Entry& e : entries_) data += encode(e);
  if (!writeAll(fd, data, 0) || fdatasync(fd) != 0 || rename(temp.c_str(), path_.c_str()) != 0) {
    KRLog("Cannot rewrite the event journal %s (%s)", path_.c_str(), strerror(errno));
    close(fd);
    unlink(temp.c_str());
    return;
  }
  close(fd_);
  fd_ = fd;
}

uint64_t EventJournal::takeId() {
  const uint64_t id = next_id_++;
  writeHeader();
  return id;
}

void EventJournal::record(std::vector<FileEvent>& events, const std::vector<uint64_t>& devices, int64_t time) {
  if (events.empty()) return;
  std::string data;
  for (size_t i = 0; i < events.size(); ++i) {
    events[i].id = next_id_++;
    Entry e{events[i].id, time, i < devices.size() ? devices[i] : 0, events[i].flags, events[i].path};
    if (e.path.size() <= kMaxPath) data += encode(e);
    entries_.push_back(std::move(e));
  }
  if (entries_.size() > capacity_) {
    // Drop the oldest tenth at once, so the file is not rewritten per batch.
    const size_t keep = capacity_ - capacity_ / 10;
    while (entries_.size() > keep) {
      reaches_back_to_ = entries_.front().time;
      entries_.pop_front();
    }
    rewrite();
  } else if (fd_ >= 0) {
    const off_t end = lseek(fd_, 0, SEEK_END);
    if (end < 0 || !writeAll(fd_, data, end)) {
      KRLog("Cannot write the event journal %s (%s)", path_.c_str(), strerror(errno));
    }
    writeHeader();
  }
  if (fd_ >= 0) fdatasync(fd_);
}

std::vector<FileEvent> EventJournal::eventsAfter(uint64_t since, const std::vector<std::string>& roots) const {
  std::vector<FileEvent> out;
  for (const Entry& e : entries_) {
    if (e.id <= since) continue;
    for (const std::string& root : roots) {
      if (isUnder(e.path, root)) {
        out.push_back({e.path, e.flags, e.id});
        break;
      }
    }
  }
  return out;
}

uint64_t EventJournal::lastEventIdForDeviceBeforeTime(uint64_t device, double seconds_since_1970) const {
  const auto time = static_cast<int64_t>(seconds_since_1970 * 1e9);
  if (entries_.empty() || entries_.front().time >= time || reaches_back_to_ >= time) return 0;
  uint64_t any = 0;
  for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
    if (it->time >= time) continue;
    if (it->device == device) return it->id;
    if (any == 0) any = it->id;
  }
  // Ids are shared by all devices: the last id before the time is an upper
  // bound for this device too.
  return any;
}

}  // namespace zephlore
