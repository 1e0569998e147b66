#include "platform/env.h"

#include <unistd.h>

#include <cerrno>

#include "base/write_all.h"

namespace zephlore {

std::string FileRef::describe() const {
  return isDescriptor() ? "descriptor " + std::to_string(fd) : path;
}

ssize_t Env::preadFully(int fd, void* buf, size_t n, uint64_t offset) {
  size_t done = 0;
  while (done < n) {
    ssize_t got = pread(fd, static_cast<char*>(buf) + done, n - done, offset + done);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

// Through the pwrite operation, so that a fault injected there reaches
// every whole-buffer write too.
bool Env::pwriteFully(int fd, const void* buf, size_t n, uint64_t offset) {
  return writeEvery(buf, n, [&](const char* bytes, size_t count, size_t done) {
    return pwrite(fd, bytes, count, offset + done);
  });
}

std::optional<std::vector<uint8_t>> Env::getxattrValue(const FileRef& file,
                                                        const std::string& name) {
  // The value may change between the size query and the read; a few rounds
  // settle any honest race.
  for (int attempt = 0; attempt < 4; ++attempt) {
    ssize_t size = getxattr(file, name, nullptr, 0);
    if (size < 0) return std::nullopt;
    std::vector<uint8_t> value(static_cast<size_t>(size));
    if (size == 0) return value;
    ssize_t got = getxattr(file, name, value.data(), value.size());
    if (got >= 0) {
      value.resize(static_cast<size_t>(got));
      return value;
    }
    if (errno != ERANGE) return std::nullopt;
  }
  errno = ERANGE;
  return std::nullopt;
}

int Env::fsyncParentDirectory(const std::string& path) {
  return fsyncDirectory(parentDirectory(path));
}

std::string parentDirectory(const std::string& path) {
  size_t end = path.size();
  while (end > 1 && path[end - 1] == '/') --end;  // "a/b/" names "a/b"
  size_t slash = path.rfind('/', end - 1);
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace zephlore
