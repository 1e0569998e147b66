#include "platform/attribute_fork.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include "platform/attribute_names.h"
#include "platform/platform_error.h"
#include "platform/volume_capabilities.h"

namespace zephlore {
namespace {

// Any more pieces than this could never be listed.
const size_t kMostPieces = kXattrListMax / AttributeFork::listBytes(attr::kResourceFork);

bool writeFork(Env& env, const FileRef& file, uint64_t size, const AttributeFork::ReadBytes& bytes, bool verify,
               Error* error) {
  std::unique_ptr<AttributeForkWriter> writer = AttributeForkWriter::open(env, file, verify, error);
  if (!writer || !writer->checkSize(size, error)) return false;
  std::vector<uint8_t> buf(static_cast<size_t>(std::min<uint64_t>(writer->pieceSize(), size)));
  for (uint64_t offset = 0; offset < size;) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(writer->pieceSize(), size - offset));
    if (!bytes(offset, buf.data(), n)) {
      return failWithErrno(error, errno, "cannot read the data of the resource fork of " + file.describe());
    }
    if (!writer->write(offset, buf.data(), n, error)) return false;
    offset += n;
  }
  return writer->finish(size, error);
}

}  // namespace

std::string AttributeFork::pieceName(size_t index) {
  std::string name = attr::kResourceFork;
  if (index > 0) name += "." + std::to_string(index);
  return name;
}

std::optional<size_t> AttributeFork::pieceIndex(const std::string& name) {
  const std::string base = attr::kResourceFork;
  if (name == base) return 0;
  if (name.size() <= base.size() + 1 || name.compare(0, base.size(), base) != 0 ||
      name[base.size()] != '.') {
    return std::nullopt;
  }
  const std::string digits = name.substr(base.size() + 1);
  if (digits.size() > 9 || digits[0] == '0') return std::nullopt;
  size_t index = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    index = index * 10 + static_cast<size_t>(c - '0');
  }
  return index;
}

bool AttributeFork::isPresent(Env& env, const FileRef& file) {
  return env.getxattr(file, attr::kResourceFork, nullptr, 0) >= 0;
}

uint64_t AttributeFork::piecesFor(uint64_t size, size_t pieceSize) {
  if (size == 0 || pieceSize == 0) return 1;
  return (size + pieceSize - 1) / pieceSize;
}

uint64_t AttributeFork::listBytes(const std::string& name) {
  return std::strlen(kUserXattrPrefix) + name.size() + 1;
}

uint64_t AttributeFork::mostPieces(uint64_t otherListBytes) {
  const uint64_t first = listBytes(attr::kResourceFork);
  if (otherListBytes + first > kXattrListMax) return 0;
  uint64_t left = kXattrListMax - otherListBytes - first;
  uint64_t pieces = 1;
  // Pieces 1-9 take ".N" more than the first, 10-99 ".NN", and so on.
  for (uint64_t digits = 1, lowest = 1; digits <= 9; ++digits, lowest *= 10) {
    const uint64_t each = first + 1 + digits;
    const uint64_t count = 9 * lowest;
    if (left / each < count) return pieces + left / each;
    pieces += count;
    left -= count * each;
  }
  return pieces;
}

bool AttributeFork::write(Env& env, const FileRef& file, const void* data, size_t size, Error* error) {
  return writeFork(
      env, file, size,
      [data](uint64_t offset, void* buf, size_t n) {
        if (n > 0) std::memcpy(buf, static_cast<const uint8_t*>(data) + offset, n);
        return true;
      },
      false, error);
}

bool AttributeFork::writeFrom(Env& env, const FileRef& file, uint64_t size, const ReadBytes& read, bool verify,
                              Error* error) {
  return writeFork(env, file, size, read, verify, error);
}

bool AttributeFork::writeFromFd(Env& env, const FileRef& file, int sourceFd, uint64_t size, Error* error) {
  return writeFork(
      env, file, size,
      [&env, sourceFd](uint64_t offset, void* buf, size_t n) {
        ssize_t got = env.preadFully(sourceFd, buf, n, offset);
        if (got < 0) return false;
        if (static_cast<size_t>(got) != n) {
          errno = EIO;  // the source ended before the size it promised
          return false;
        }
        return true;
      },
      false, error);
}

bool AttributeFork::remove(Env& env, const FileRef& file, Error* error) {
  const std::string what = "cannot remove the resource fork of " + file.describe();
  // The fork attribute first: from then on the file has no fork, even if a
  // crash interrupts the rest.
  if (env.removexattr(file, pieceName(0)) != 0 && errno != ENODATA) {
    return failWithErrno(error, errno, what);
  }
  std::optional<std::vector<std::string>> names = env.listxattr(file);
  if (names) {
    for (const std::string& name : *names) {
      std::optional<size_t> index = pieceIndex(name);
      if (index && env.removexattr(file, name) != 0 && errno != ENODATA) {
        return failWithErrno(error, errno, what);
      }
    }
    return true;
  }
  if (errno != E2BIG) return failWithErrno(error, errno, what);
  // A list too long to read: remove the pieces in order until one is missing.
  for (size_t index = 1; index <= kMostPieces; ++index) {
    if (env.removexattr(file, pieceName(index)) != 0) {
      if (errno == ENODATA) return true;
      return failWithErrno(error, errno, what);
    }
  }
  return true;
}

// --- AttributeForkWriter -------------------------------------------------------

std::unique_ptr<AttributeForkWriter> AttributeForkWriter::open(Env& env, const FileRef& file, bool verify,
                                                               Error* error, uint64_t namesToCome) {
  std::optional<size_t> pieceSize = VolumeCapabilities::attributePieceSize(env, file, error);
  if (!pieceSize) return nullptr;
  if (*pieceSize == 0) {
    failWithErrno(error, ENOTSUP,
                  "cannot write the resource fork of " + file.describe() +
                      ": its volume takes no user attributes");
    return nullptr;
  }
  std::optional<std::vector<std::string>> names = env.listxattr(file);
  const ssize_t listSize = names ? env.xattrListSize(file) : -1;
  if (listSize < 0) {
    failWithErrno(error, errno, "cannot list the attributes of " + file.describe());
    return nullptr;
  }
  uint64_t otherBytes = static_cast<uint64_t>(listSize);
  bool hadFork = false;
  for (const std::string& name : *names) {
    if (!AttributeFork::pieceIndex(name)) continue;
    otherBytes -= std::min(otherBytes, AttributeFork::listBytes(name));
    hadFork = true;
  }
  return std::unique_ptr<AttributeForkWriter>(
      new AttributeForkWriter(env, file, *pieceSize, otherBytes + namesToCome, hadFork, verify));
}

AttributeForkWriter::AttributeForkWriter(Env& env, FileRef file, size_t pieceSize, uint64_t otherListBytes,
                                         bool hadFork, bool verify)
    : env_(env),
      file_(std::move(file)),
      pieceSize_(pieceSize),
      mostPieces_(AttributeFork::mostPieces(otherListBytes)),
      hadFork_(hadFork),
      verify_(verify) {}

AttributeForkWriter::~AttributeForkWriter() {
  if (!finished_ && storedAny_) AttributeFork::remove(env_, file_, nullptr);
}

bool AttributeForkWriter::fail(int err, const std::string& why, Error* error) {
  abandon();
  return failWithErrno(error, err, why);
}

void AttributeForkWriter::abandon() {
  failed_ = true;
  if (storedAny_) AttributeFork::remove(env_, file_, nullptr);
  storedAny_ = false;
  pending_.clear();
}

bool AttributeForkWriter::checkSize(uint64_t size, Error* error) {
  if (AttributeFork::piecesFor(size, pieceSize_) <= mostPieces_) return true;
  return tooManyPieces(size, error);
}

// EFBIG, not the E2BIG or ENOSPC of a volume that refuses a value: the file
// is too large for the form on any volume with pieces of this size.
bool AttributeForkWriter::tooManyPieces(uint64_t size, Error* error) {
  abandon();
  return zephlore::fail(error, kPlatformErrorDomain, EFBIG,
                        "its compressed data passed " + std::to_string(size) +
                            " bytes; a file's attribute list (64 KiB of names) names at most " +
                            std::to_string(mostPieces_) + " fork pieces of " + std::to_string(pieceSize_) +
                            " bytes, " + std::to_string(mostBytes()) + " bytes");
}

bool AttributeForkWriter::write(uint64_t offset, const void* data, size_t n, Error* error) {
  if (failed_ || finished_) return failWithErrno(error, EINVAL, "the resource fork writer is closed");
  const uint8_t* in = static_cast<const uint8_t*>(data);
  while (n > 0) {
    const uint64_t index = offset / pieceSize_;
    const size_t within = static_cast<size_t>(offset % pieceSize_);
    const size_t take = std::min(n, pieceSize_ - within);
    if (index >= mostPieces_) return tooManyPieces(offset + take, error);
    if (index < stored_.size() && stored_[index]) {
      return fail(EINVAL, "bytes of piece " + std::to_string(index) + " written twice", error);
    }
    auto it = pending_.find(index);
    if (it == pending_.end() && take == pieceSize_) {
      if (!store(index, in, take, error)) return false;
    } else {
      if (it == pending_.end()) it = pending_.emplace(index, Pending{std::vector<uint8_t>(pieceSize_), 0}).first;
      Pending& piece = it->second;
      std::memcpy(piece.bytes.data() + within, in, take);
      piece.filled += take;
      if (piece.filled == pieceSize_) {
        std::vector<uint8_t> bytes = std::move(piece.bytes);
        pending_.erase(it);
        if (!store(index, bytes.data(), bytes.size(), error)) return false;
      }
    }
    in += take;
    offset += take;
    n -= take;
  }
  return true;
}

bool AttributeForkWriter::finish(uint64_t size, Error* error) {
  if (failed_ || finished_) return failWithErrno(error, EINVAL, "the resource fork writer is closed");
  if (!checkSize(size, error)) return false;
  const uint64_t last = AttributeFork::piecesFor(size, pieceSize_) - 1;
  const size_t lastSize = static_cast<size_t>(size - last * pieceSize_);
  auto missing = [&](uint64_t index) {
    return fail(EIO,
                "the resource fork of " + file_.describe() + " lacks bytes of piece " + std::to_string(index),
                error);
  };
  if (stored_.size() > last + 1 || (!pending_.empty() && pending_.rbegin()->first > last)) {
    return fail(EINVAL, "bytes written past the end of a resource fork of " + std::to_string(size) + " bytes", error);
  }
  for (uint64_t index = 0; index < last; ++index) {
    if (index >= stored_.size() || !stored_[index]) return missing(index);
  }
  if (last >= stored_.size() || !stored_[last]) {
    auto it = pending_.find(last);
    const size_t filled = it == pending_.end() ? 0 : it->second.filled;
    if (filled != lastSize) return missing(last);
    std::vector<uint8_t> bytes = it == pending_.end() ? std::vector<uint8_t>() : std::move(it->second.bytes);
    pending_.clear();
    if (!store(last, bytes.data(), lastSize, error)) return false;
  }
  finished_ = true;
  return true;
}

bool AttributeForkWriter::store(uint64_t index, const uint8_t* data, size_t n, Error* error) {
  Env& env = env_;
  const std::string what = "the resource fork of " + file_.describe();
  if (hadFork_) {
    hadFork_ = false;
    Error why;
    if (!AttributeFork::remove(env, file_, &why)) return fail(why.code, why.message, error);
  }
  const std::string name = AttributeFork::pieceName(static_cast<size_t>(index));
  if (env.setxattr(file_, name, data, n, 0) != 0) {
    const int err = errno;
    const bool full = err == ENOSPC || err == E2BIG || err == EDQUOT || err == ERANGE;
    storedAny_ = true;  // a failed call may still have left something
    return fail(err,
                "cannot write piece " + std::to_string(index) + " of " + what +
                    (full ? " (the volume cannot hold a fork this large)" : ""),
                error);
  }
  storedAny_ = true;
  storedBytes_ += n;
  if (index >= stored_.size()) stored_.resize(index + 1, false);
  stored_[index] = true;
  if (!verify_) return true;
  readBack_.resize(n);
  const ssize_t got = env.getxattr(file_, name, readBack_.data(), n);
  if (got < 0 && errno != ERANGE) return fail(errno, "cannot read back piece " + std::to_string(index) + " of " + what, error);
  if (got != static_cast<ssize_t>(n) || (n > 0 && std::memcmp(readBack_.data(), data, n) != 0)) {
    return fail(EIO, "piece " + std::to_string(index) + " of " + what + " does not read back as written", error);
  }
  return true;
}

// --- AttributeForkReader -------------------------------------------------------

AttributeForkReader::AttributeForkReader(Env& env, FileRef file, std::vector<size_t> sizes)
    : env_(env), file_(std::move(file)), sizes_(std::move(sizes)) {
  for (size_t size : sizes_) {
    starts_.push_back(size_);
    size_ += size;
  }
}

std::unique_ptr<AttributeForkReader> AttributeForkReader::open(Env& env, const FileRef& file,
                                                               Error* error) {
  std::vector<size_t> sizes;
  for (size_t index = 0;; ++index) {
    ssize_t size = env.getxattr(file, AttributeFork::pieceName(index), nullptr, 0);
    if (size < 0) {
      if (errno == ENODATA && index > 0) break;
      failWithErrno(error, errno,
                    index == 0 ? file.describe() + " has no resource fork"
                               : "cannot read the resource fork of " + file.describe());
      return nullptr;
    }
    sizes.push_back(static_cast<size_t>(size));
    if (sizes.size() > kMostPieces) {
      failWithErrno(error, E2BIG,
                    "the resource fork of " + file.describe() + " has too many pieces");
      return nullptr;
    }
  }
  return std::unique_ptr<AttributeForkReader>(new AttributeForkReader(env, file, std::move(sizes)));
}

bool AttributeForkReader::readAt(uint64_t offset, void* buf, size_t n, Error* error) {
  if (offset > size_ || n > size_ - offset) {
    return failWithErrno(error, EINVAL,
                         std::to_string(n) + " bytes at " + std::to_string(offset) +
                             " lie outside the " + std::to_string(size_) +
                             "-byte resource fork of " + file_.describe());
  }
  uint8_t* out = static_cast<uint8_t*>(buf);
  while (n > 0) {
    // The last piece starting at or before `offset` that is not empty.
    size_t index = static_cast<size_t>(
        std::upper_bound(starts_.begin(), starts_.end(), offset) - starts_.begin() - 1);
    while (sizes_[index] == 0 || offset - starts_[index] >= sizes_[index]) ++index;
    const uint8_t* piece = load(index, error);
    if (!piece) return false;
    const uint64_t within = offset - starts_[index];
    const size_t take = static_cast<size_t>(std::min<uint64_t>(n, sizes_[index] - within));
    std::memcpy(out, piece + within, take);
    out += take;
    offset += take;
    n -= take;
  }
  return true;
}

const uint8_t* AttributeForkReader::load(size_t index, Error* error) {
  for (size_t slot = 0; slot < 2; ++slot) {
    if (cached_[slot] == index) {
      recent_ = slot;
      return cache_[slot].data();
    }
  }
  const size_t slot = 1 - recent_;
  cached_[slot] = SIZE_MAX;
  std::vector<uint8_t>& bytes = cache_[slot];
  bytes.resize(sizes_[index]);
  ssize_t got = env_.getxattr(file_, AttributeFork::pieceName(index), bytes.data(), bytes.size());
  if (got < 0 && errno != ERANGE) {
    failWithErrno(error, errno, "cannot read the resource fork of " + file_.describe());
    return nullptr;
  }
  if (got < 0 || static_cast<size_t>(got) != sizes_[index]) {
    failWithErrno(error, EIO, "the resource fork of " + file_.describe() + " changed while it was read");
    return nullptr;
  }
  cached_[slot] = index;
  recent_ = slot;
  return bytes.data();
}

}  // namespace zephlore
