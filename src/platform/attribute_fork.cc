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

// Reads `n` bytes of the new fork at `offset` into `buf`; false with errno.
using ForkBytes = std::function<bool(uint64_t offset, void* buf, size_t n)>;

// Bytes a name takes in the kernel's attribute list.
uint64_t listBytes(const std::string& name) {
  return std::strlen(kUserXattrPrefix) + name.size() + 1;
}

// Any more pieces than this could never be listed.
const size_t kMostPieces = kXattrListMax / listBytes(attr::kResourceFork);

bool writeFork(const FileRef& file, uint64_t size, const ForkBytes& bytes, Error* error) {
  Env& env = Env::shared();
  const std::string what = "resource fork of " + file.describe();
  std::optional<size_t> pieceSize = VolumeCapabilities::attributePieceSize(file, error);
  if (!pieceSize) return false;
  if (*pieceSize == 0) {
    return failWithErrno(error, ENOTSUP,
                         "cannot write the " + what + ": its volume takes no user attributes");
  }
  const uint64_t pieces = AttributeFork::piecesFor(size, *pieceSize);

  std::optional<std::vector<std::string>> names = env.listxattr(file);
  ssize_t listSize = names ? env.xattrListSize(file) : -1;
  if (listSize < 0) return failWithErrno(error, errno, "cannot list the attributes of " + file.describe());
  uint64_t otherBytes = static_cast<uint64_t>(listSize);
  std::vector<size_t> stale;
  for (const std::string& name : *names) {
    std::optional<size_t> index = AttributeFork::pieceIndex(name);
    if (!index) continue;
    otherBytes -= std::min(otherBytes, listBytes(name));
    if (*index >= pieces) stale.push_back(*index);
  }
  if (!AttributeFork::namesFit(pieces, otherBytes)) {
    return failWithErrno(error, E2BIG,
                         "cannot write the " + what + ": " + std::to_string(size) +
                             " bytes need " + std::to_string(pieces) + " attribute pieces of " +
                             std::to_string(*pieceSize) +
                             " bytes, more than a file's attribute list can name");
  }

  auto undo = [&](int err, const std::string& why) {
    AttributeFork::remove(file, nullptr);
    return failWithErrno(error, err, why);
  };
  // Stale pieces go first: at no moment may a reader append them to the new fork.
  std::sort(stale.rbegin(), stale.rend());
  for (size_t index : stale) {
    if (env.removexattr(file, AttributeFork::pieceName(index)) != 0 && errno != ENODATA) {
      return undo(errno, "cannot remove a stale piece of the " + what);
    }
  }
  std::vector<uint8_t> buf(static_cast<size_t>(std::min<uint64_t>(*pieceSize, size)));
  for (uint64_t index = 0, offset = 0; index < pieces; ++index) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(*pieceSize, size - offset));
    if (!bytes(offset, buf.data(), n)) return undo(errno, "cannot read the data of the " + what);
    if (env.setxattr(file, AttributeFork::pieceName(index), buf.data(), n, 0) != 0) {
      const int err = errno;
      const bool full = err == ENOSPC || err == E2BIG || err == EDQUOT || err == ERANGE;
      return undo(err, "cannot write piece " + std::to_string(index) + " of the " + what +
                           (full ? " (the volume cannot hold a fork of " + std::to_string(size) +
                                       " bytes)"
                                 : ""));
    }
    offset += n;
  }
  return true;
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

bool AttributeFork::isPresent(const FileRef& file) {
  return Env::shared().getxattr(file, attr::kResourceFork, nullptr, 0) >= 0;
}

uint64_t AttributeFork::piecesFor(uint64_t size, size_t pieceSize) {
  if (size == 0 || pieceSize == 0) return 1;
  return (size + pieceSize - 1) / pieceSize;
}

bool AttributeFork::namesFit(uint64_t pieces, uint64_t otherListBytes) {
  uint64_t total = otherListBytes;
  for (uint64_t index = 0; index < pieces; ++index) {
    total += listBytes(pieceName(static_cast<size_t>(index)));
    if (total > kXattrListMax) return false;
  }
  return true;
}

bool AttributeFork::write(const FileRef& file, const void* data, size_t size, Error* error) {
  return writeFork(
      file, size,
      [data](uint64_t offset, void* buf, size_t n) {
        if (n > 0) std::memcpy(buf, static_cast<const uint8_t*>(data) + offset, n);
        return true;
      },
      error);
}

bool AttributeFork::writeFromFd(const FileRef& file, int sourceFd, uint64_t size, Error* error) {
  return writeFork(
      file, size,
      [sourceFd](uint64_t offset, void* buf, size_t n) {
        ssize_t got = Env::shared().preadFully(sourceFd, buf, n, offset);
        if (got < 0) return false;
        if (static_cast<size_t>(got) != n) {
          errno = EIO;  // the source ended before the size it promised
          return false;
        }
        return true;
      },
      error);
}

bool AttributeFork::remove(const FileRef& file, Error* error) {
  Env& env = Env::shared();
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

// --- AttributeForkReader -------------------------------------------------------

AttributeForkReader::AttributeForkReader(FileRef file, std::vector<size_t> sizes)
    : file_(std::move(file)), sizes_(std::move(sizes)) {
  for (size_t size : sizes_) {
    starts_.push_back(size_);
    size_ += size;
  }
}

std::unique_ptr<AttributeForkReader> AttributeForkReader::open(const FileRef& file,
                                                               Error* error) {
  Env& env = Env::shared();
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
  return std::unique_ptr<AttributeForkReader>(new AttributeForkReader(file, std::move(sizes)));
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
    if (!load(index, error)) return false;
    const uint64_t within = offset - starts_[index];
    const size_t take = static_cast<size_t>(std::min<uint64_t>(n, sizes_[index] - within));
    std::memcpy(out, cache_.data() + within, take);
    out += take;
    offset += take;
    n -= take;
  }
  return true;
}

bool AttributeForkReader::load(size_t index, Error* error) {
  if (cached_ == index) return true;
  cached_ = SIZE_MAX;
  cache_.resize(sizes_[index]);
  ssize_t got =
      Env::shared().getxattr(file_, AttributeFork::pieceName(index), cache_.data(), cache_.size());
  if (got < 0 && errno != ERANGE) {
    return failWithErrno(error, errno, "cannot read the resource fork of " + file_.describe());
  }
  if (got < 0 || static_cast<size_t>(got) != sizes_[index]) {
    return failWithErrno(error, EIO,
                         "the resource fork of " + file_.describe() + " changed while it was read");
  }
  cached_ = index;
  return true;
}

}  // namespace zephlore
