#include "view/reply_pipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "base/unique_fd.h"

namespace zephlore::view {
namespace {

constexpr size_t kPage = 4096;
// The size asked for the pipe; one buffer per page it holds.
constexpr int kPipeBytes = 1 << 20;

struct ThreadPipe {
  UniqueFd readEnd, writeEnd;
  size_t pages = 0;  // buffers the pipe holds
  // Blocks the pipe, or the reply made from it, may still refer to.
  std::vector<CompressedContent::Piece> held;

  bool ready() {
    int queued = 0;
    if (readEnd && ioctl(readEnd.get(), FIONREAD, &queued) == 0 && queued == 0) return true;
    // New, or left holding bytes by a reply that failed: start afresh, which
    // also lets go of the pages the old one referred to.
    int fds[2];
    readEnd.reset();
    writeEnd.reset();
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return false;
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    const int size = fcntl(fds[1], F_SETPIPE_SZ, kPipeBytes);
    pages = size > 0 ? static_cast<size_t>(size) / kPage : 16;
    return true;
  }
};

thread_local ThreadPipe threadPipe;

}  // namespace

int pipeHolding(const std::vector<CompressedContent::Piece>& pieces, size_t total) {
  ThreadPipe& p = threadPipe;
  if (!p.ready()) return -1;
  p.held.clear();  // the thread's last reply went out before this request came
  std::vector<iovec> iov;
  size_t pages = 0;
  for (const CompressedContent::Piece& piece : pieces) {
    const auto start = reinterpret_cast<uintptr_t>(piece.block->data() + piece.from);
    pages += (start + piece.length + kPage - 1) / kPage - start / kPage;
    iov.push_back(iovec{const_cast<uint8_t*>(piece.block->data() + piece.from), piece.length});
  }
  if (pages > p.pages || iov.size() > IOV_MAX) return -1;
  size_t done = 0;
  for (size_t at = 0; at < iov.size() && done < total;) {
    const ssize_t n = vmsplice(p.writeEnd.get(), &iov[at], iov.size() - at, SPLICE_F_NONBLOCK);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
    // Step over what went in; a part-taken piece goes on from where it stopped.
    for (size_t left = static_cast<size_t>(n); left > 0 && at < iov.size();) {
      const size_t take = std::min(left, iov[at].iov_len);
      iov[at].iov_base = static_cast<uint8_t*>(iov[at].iov_base) + take;
      iov[at].iov_len -= take;
      left -= take;
      if (iov[at].iov_len == 0) ++at;
    }
  }
  p.held = pieces;
  if (done != total) {
    p.readEnd.reset();  // the next call makes a new pipe
    return -1;
  }
  return p.readEnd.get();
}

int pipeFromFile(Env& env, int fd, off_t offset, size_t size, size_t* got) {
  ThreadPipe& p = threadPipe;
  // An offset within a page may take one buffer more.
  if (!p.ready() || size + kPage > p.pages * kPage) return -1;
  p.held.clear();
  size_t done = 0;
  loff_t at = offset;
  while (done < size) {
    const ssize_t n = env.spliceToPipe(fd, &at, p.writeEnd.get(), size - done, SPLICE_F_NONBLOCK);
    if (n == 0) break;  // the end of the file
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      p.readEnd.reset();  // the next call makes a new pipe
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  *got = done;
  return p.readEnd.get();
}

}  // namespace zephlore::view
