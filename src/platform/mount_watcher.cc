#include "platform/mount_watcher.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <sstream>

#include "base/notification_center.h"

namespace zephlore {
namespace {

std::string unescape(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3') {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

}  // namespace

MountWatcher::MountWatcher(RunLoop& loop, NotificationCenter& center, std::string table)
    : loop_(loop), center_(center), table_(std::move(table)) {
  fd_ = open(table_.c_str(), O_RDONLY | O_CLOEXEC);
  mount_points_ = read();
  if (fd_ >= 0) watch_ = loop_.watchFd(fd_, POLLPRI, [this](short) { check(); });
}

MountWatcher::~MountWatcher() {
  if (watch_) loop_.unwatchFd(watch_);
  if (fd_ >= 0) close(fd_);
}

std::set<std::string> MountWatcher::parse(const std::string& text) {
  std::set<std::string> points;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    // id parent major:minor root mount-point ...
    std::istringstream fields(line);
    std::string id, parent, device, root, point;
    if (fields >> id >> parent >> device >> root >> point) points.insert(unescape(point));
  }
  return points;
}

std::set<std::string> MountWatcher::read() {
  if (fd_ < 0) return {};
  std::string text;
  char buffer[16384];
  lseek(fd_, 0, SEEK_SET);
  ssize_t n;
  while ((n = ::read(fd_, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  return parse(text);
}

void MountWatcher::check() {
  std::set<std::string> now = read();
  for (const std::string& point : now) {
    if (!mount_points_.count(point)) {
      center_.post(kDidMountNotification, nullptr, {{kDevicePathKey, point}});
    }
  }
  for (const std::string& point : mount_points_) {
    if (!now.count(point)) {
      center_.post(kDidUnmountNotification, nullptr, {{kDevicePathKey, point}});
    }
  }
  mount_points_ = std::move(now);
}

}  // namespace zephlore
