#include "engine/in_process_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "base/log.h"
#include "platform/config_file.h"
#include "platform/env.h"

namespace zephlore {
namespace {

// A record is one path (at most PATH_MAX bytes) and one number; anything past
// this much cannot belong to it.
constexpr size_t kMaxRecordBytes = 2 * PATH_MAX + 64;

std::optional<std::string> readRecordText(Env& env, const std::string& filename) {
  int fd = env.open(filename, O_RDONLY | O_NONBLOCK);
  if (fd == -1) return std::nullopt;
  struct stat st;
  if (env.fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    env.close(fd);
    return std::nullopt;
  }
  std::string text(kMaxRecordBytes, '\0');
  ssize_t n = env.preadFully(fd, text.data(), text.size(), 0);
  env.close(fd);
  if (n < 0) return std::nullopt;
  text.resize(static_cast<size_t>(n));
  return text;
}

// Leading decimal number of `piece` as a signed 64-bit value: white space and
// a sign may precede the digits, a value out of range saturates, no digits
// give 0.
int64_t leadingInteger(std::string_view piece) {
  size_t i = 0;
  while (i < piece.size() && (piece[i] == ' ' || piece[i] == '\t')) ++i;
  bool negative = false;
  if (i < piece.size() && (piece[i] == '+' || piece[i] == '-')) negative = piece[i++] == '-';
  uint64_t value = 0;
  bool overflow = false;
  for (; i < piece.size() && piece[i] >= '0' && piece[i] <= '9'; ++i) {
    uint64_t digit = static_cast<uint64_t>(piece[i] - '0');
    if (value > (UINT64_MAX - digit) / 10) {
      overflow = true;
      break;
    }
    value = value * 10 + digit;
  }
  if (negative) {
    if (overflow || value > static_cast<uint64_t>(INT64_MAX) + 1) return INT64_MIN;
    return value == static_cast<uint64_t>(INT64_MAX) + 1 ? INT64_MIN : -static_cast<int64_t>(value);
  }
  if (overflow || value > static_cast<uint64_t>(INT64_MAX)) return INT64_MAX;
  return static_cast<int64_t>(value);
}

}  // namespace

std::string InProcessRecordFile::format(std::string_view path, uint64_t size) {
  std::string record(path);
  record += '\n';
  record += std::to_string(static_cast<unsigned long long>(size));
  return record;
}

InProcessRecord InProcessRecordFile::parse(std::string_view text) {
  InProcessRecord record;
  if (text.empty()) return record;
  size_t newline = text.find('\n');
  record.path = std::string(text.substr(0, newline));
  if (newline != std::string_view::npos) {
    std::string_view rest = text.substr(newline + 1);
    record.expectedSize = leadingInteger(rest.substr(0, rest.find('\n')));
  }
  return record;
}

InProcessRecordFile::InProcessRecordFile(std::string filename, Env& env) : env_(env), filename_(std::move(filename)) {
  // Somebody else's FIFO, socket or folder at the name is left alone; a link
  // to a regular file is followed.
  std::string refusal;
  std::optional<std::string> target = configWriteTarget(env_, filename_, &refusal);
  if (!target) {
    KRLog("Could not create watchdog file at %s: it is %s", filename_.c_str(), refusal.c_str());
    return;
  }
  // The previous run's record is read before the file is opened for this run,
  // and opening does not truncate it: it stays on disk until reset().
  if (std::optional<std::string> text = readRecordText(env_, *target)) previous_ = parse(*text);

  // The exclusive lock fails when another instance of the helper holds the
  // record: that instance owns crash recovery, this one runs without a trace.
  int fd = env_.openLocked(*target, O_RDWR | O_CREAT | O_NONBLOCK, 0644);
  if (fd == -1) {
    int saved = errno;
    KRLog("Could not create watchdog file at %s, errno: %u [%s]", filename_.c_str(),
          static_cast<unsigned>(saved), strerror(saved));
    heldElsewhere_ = saved == EWOULDBLOCK;
    return;
  }
  struct stat st{};
  if (env_.fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    KRLog("Could not create watchdog file at %s: it is %s, not a regular file", filename_.c_str(),
          fileTypePhrase(st.st_mode).c_str());
    env_.close(fd);
    return;
  }
  fd_ = fd;
}

InProcessRecordFile::~InProcessRecordFile() {
  if (fd_ != -1) env_.close(fd_);
}

void InProcessRecordFile::willProcessFile(const std::string& path) {
  if (fd_ == -1) return;
  Env& env = env_;
  struct stat st;
  uint64_t size = env.lstat(path, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  std::string record = format(path, size);
  // The record file is empty at this point (every critical section ends with
  // reset()), so writing at offset 0 leaves exactly this record. Errors are
  // ignored: compression goes on without a trace, as without a watchdog.
  ssize_t written = env.pwrite(fd_, record.data(), record.size(), 0);
  (void)written;
}

void InProcessRecordFile::reset() {
  if (fd_ == -1) return;
  int result = env_.ftruncate(fd_, 0);
  (void)result;
}

}  // namespace zephlore
