#include "engine/fork_source.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "engine/fd_io.h"
#include "engine/hfs_error_codes.h"

namespace zephlore {

namespace {

bool outOfRange(Error* error, uint64_t off, size_t n, uint64_t size) {
  return fail(error, kHFSErrorDomain, kHFSErrorCannotUncompress,
              "Source data cannot be uncompressed: " + std::to_string(n) + " bytes at " + std::to_string(off) +
                  " lie outside the " + std::to_string(size) + "-byte fork");
}

bool inRange(uint64_t off, size_t n, uint64_t size) { return off <= size && n <= size - off; }

}  // namespace

bool MemoryForkSource::readAt(uint64_t off, void* buf, size_t n, Error* error) {
  if (!inRange(off, n, size_)) return outOfRange(error, off, n, size_);
  if (n > 0) std::memcpy(buf, data_ + off, n);
  return true;
}

std::unique_ptr<FdForkSource> FdForkSource::open(Env& env, int fd, Error* error) {
  struct stat st;
  if (env.fstat(fd, &st) != 0) {
    fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, std::string("Could not read source data: ") + std::strerror(errno));
    return nullptr;
  }
  return std::make_unique<FdForkSource>(env, fd, static_cast<uint64_t>(st.st_size));
}

bool FdForkSource::readAt(uint64_t off, void* buf, size_t n, Error* error) {
  if (!inRange(off, n, size_)) return outOfRange(error, off, n, size_);
  const ssize_t got = preadFull(env_, fd_, buf, n, off);
  if (got < 0) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, std::string("Could not read source data: ") + std::strerror(errno));
  }
  if (static_cast<size_t>(got) != n) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead, "Could not read source data: the fork is shorter than it was");
  }
  return true;
}

}  // namespace zephlore
