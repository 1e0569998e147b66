#include "platform/volume_capabilities.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#include "platform/attribute_fork.h"
#include "platform/attribute_names.h"
#include "platform/platform_error.h"
#include "platform/temporary_files.h"

namespace zephlore {
namespace {

constexpr std::string_view kExchangeProbe = ".zephlore-exchange-";
constexpr std::string_view kScratchProbe = ".zephlore-probe-";
constexpr size_t kLargestPiece = 65536;
constexpr size_t kSmallestPiece = 64;  // a volume taking less holds no fork worth having
// The probe's name is at least as long as any piece name a listable fork can
// have (fewer than 10000 pieces), so every piece fits where the probe did.
static_assert(sizeof("com.quorvane.zephlore.probe") >= sizeof("com.apple.ResourceFork.9999"));

// The file-system id tells apart two images mounted one after the other on
// the same loop device, or two sticks in the same port.
struct VolumeKey {
  dev_t device;
  int64_t type;
  uint64_t fsid;
  bool operator<(const VolumeKey& other) const {
    return std::tie(device, type, fsid) < std::tie(other.device, other.type, other.fsid);
  }
};

struct Facts {
  std::optional<size_t> pieceSize;
  std::optional<bool> canHold;
  std::optional<bool> exchange;
};

std::mutex g_mutex;
std::map<VolumeKey, Facts>& facts() {
  static auto* map = new std::map<VolumeKey, Facts>;  // never destroyed
  return *map;
}

template <typename T>
std::optional<T> known(const VolumeKey& key, std::optional<T> Facts::*field) {
  std::lock_guard lock(g_mutex);
  auto it = facts().find(key);
  return it == facts().end() ? std::nullopt : it->second.*field;
}

template <typename T>
void learn(const VolumeKey& key, std::optional<T> Facts::*field, T value) {
  std::lock_guard lock(g_mutex);
  facts()[key].*field = value;
}

void forgetPieceSize(const VolumeKey& key) {
  std::lock_guard lock(g_mutex);
  auto it = facts().find(key);
  if (it != facts().end()) it->second.pieceSize.reset();
}

std::optional<VolumeKey> keyOf(Env& env, const FileRef& file) {
  struct stat st;
  struct statfs fs;
  if (file.isDescriptor()) {
    if (env.fstat(file.fd, &st) != 0 || env.fstatfs(file.fd, &fs) != 0) return std::nullopt;
  } else {
    int rc = file.traverseLink ? env.stat(file.path, &st) : env.lstat(file.path, &st);
    if (rc != 0 || env.statfs(file.path, &fs) != 0) return std::nullopt;
  }
  uint64_t fsid = 0;
  static_assert(sizeof fs.f_fsid == sizeof fsid);
  std::memcpy(&fsid, &fs.f_fsid, sizeof fsid);
  return VolumeKey{st.st_dev, static_cast<int64_t>(fs.f_type), fsid};
}

enum class Put { kOk, kTooBig, kUnsupported, kFailed };

Put tryPut(Env& env, const FileRef& file, const std::vector<uint8_t>& buf, size_t n) {
  if (env.setxattr(file, attr::kProbe, buf.data(), n, 0) == 0) {
    // Removed at once: on volumes where a file's attributes share one block
    // the previous probe value must not crowd the next.
    env.removexattr(file, attr::kProbe);
    return Put::kOk;
  }
  switch (errno) {
    case ENOSPC:
    case E2BIG:
    case ERANGE:
    case EDQUOT:
      return Put::kTooBig;
    case ENOTSUP:
      return Put::kUnsupported;
    default:
      return Put::kFailed;
  }
}

// The largest value the probe attribute takes on `file`: halving from 64 KiB
// until one fits, then bisecting up to the exact limit.
std::optional<size_t> measurePieceSize(Env& env, const FileRef& file, Error* error) {
  const std::vector<uint8_t> buf(kLargestPiece, 0x5A);
  auto failed = [&] {
    failWithErrno(error, errno, "cannot measure the attribute space of " + file.describe());
    return std::nullopt;
  };
  size_t fits = 0, refused = kLargestPiece + 1;
  for (size_t size = kLargestPiece; size >= kSmallestPiece; size /= 2) {
    Put put = tryPut(env, file, buf, size);
    if (put == Put::kOk) {
      fits = size;
      break;
    }
    if (put == Put::kUnsupported) return size_t{0};
    if (put == Put::kFailed) return failed();
    refused = size;
  }
  if (fits == 0) return size_t{0};
  while (refused - fits > 1) {
    size_t mid = fits + (refused - fits) / 2;
    Put put = tryPut(env, file, buf, mid);
    if (put == Put::kFailed || put == Put::kUnsupported) return failed();
    (put == Put::kOk ? fits : refused) = mid;
  }
  return fits;
}

std::string directoryOf(Env& env, const std::string& path) {
  struct stat st;
  if (env.stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return path;
  return parentDirectory(path);
}

// Places on `device` where scratch files may be made: the private temporary
// directory when it is there, and `dir`.
std::vector<std::string> scratchPlaces(Env& env, const std::string& dir, dev_t device, bool privateFirst) {
  std::vector<std::string> places{dir};
  struct stat st;
  std::optional<std::string> own = TemporaryFiles::privateDirectory();
  if (own && env.stat(*own, &st) == 0 && st.st_dev == device) {
    places.insert(privateFirst ? places.begin() : places.end(), *own);
  }
  return places;
}

bool onDevice(Env& env, int fd, dev_t device) {
  struct stat st;
  return env.fstat(fd, &st) == 0 && st.st_dev == device;
}

// Removes the probes that runs killed while probing left in `place`: empty
// regular files of this user with a single link that no live run holds
// locked (a live run locks each of its probes before it names it).
void removeProbeLeftovers(Env& env, const std::string& place) {
  std::optional<std::vector<std::string>> names = env.listDirectory(place);
  if (!names) return;
  for (const std::string& name : *names) {
    if (!VolumeCapabilities::isProbeName(name)) continue;
    const std::string path = place + "/" + name;
    struct stat st, opened;
    if (env.lstat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1 ||
        st.st_size != 0) {
      continue;
    }
    UniqueFd unheld(env.openLocked(path, O_RDONLY | O_NONBLOCK));
    if (unheld && env.fstat(unheld.get(), &opened) == 0 && opened.st_ino == st.st_ino) env.unlink(path);
  }
}

// A named probe file in `place`, locked before it has its name where the
// file system has unnamed files, so that no other run removes it while it
// is in use; a kill leaves it for removeProbeLeftovers().
std::optional<TemporaryFiles::Created> namedProbe(Env& env, const std::string& place) {
  UniqueFd fd(env.openTmpFile(place, 0600));
  if (!fd) {
    std::optional<TemporaryFiles::Created> made = TemporaryFiles::create(env, std::string(kExchangeProbe), nullptr, place);
    if (made) env.lockDescriptor(made->fd.get());
    return made;
  }
  env.lockDescriptor(fd.get());
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string path = place + "/" + std::string(kExchangeProbe) + TemporaryFiles::randomSuffix(6);
    if (env.linkTmpFile(fd.get(), path) == 0) return TemporaryFiles::Created{std::move(path), std::move(fd)};
    if (errno != EEXIST) return std::nullopt;
  }
  return std::nullopt;
}

// An unnamed scratch file on `device`: O_TMPFILE where the file system has
// it, else a file unlinked right after it is made.
UniqueFd scratchFile(Env& env, const std::string& dir, dev_t device) {
  for (const std::string& place : scratchPlaces(env, dir, device, false)) {
    UniqueFd fd(env.openTmpFile(place, 0600));
    if (!fd) {
      removeProbeLeftovers(env, place);
      if (auto made = TemporaryFiles::create(env, std::string(kScratchProbe), nullptr, place)) {
        env.unlink(made->path);
        fd = std::move(made->fd);
      }
    }
    if (fd && onDevice(env, fd.get(), device)) return fd;
  }
  return UniqueFd();
}

}  // namespace

std::optional<size_t> VolumeCapabilities::attributePieceSize(Env& env, const FileRef& file, Error* error) {
  std::optional<VolumeKey> key = keyOf(env, file);
  if (!key) {
    failWithErrno(error, errno, "cannot find the volume of " + file.describe());
    return std::nullopt;
  }
  if (auto size = known(*key, &Facts::pieceSize)) return size;
  std::optional<size_t> size = measurePieceSize(env, file, error);
  if (size) learn(*key, &Facts::pieceSize, *size);
  return size;
}

bool VolumeCapabilities::canHoldCompressedForm(Env& env, const std::string& path) {
  std::optional<VolumeKey> key = keyOf(env, FileRef::atPath(path, true));
  if (!key) return false;
  if (known(*key, &Facts::canHold).value_or(false)) return true;
  // A volume that could not hold the form is measured afresh each time:
  // `tune2fs -O ea_inode` changes that on the mounted volume at once.
  forgetPieceSize(*key);
  UniqueFd scratch = scratchFile(env, directoryOf(env, path), key->device);
  if (!scratch) return false;
  const FileRef file = FileRef::descriptor(scratch.get());
  std::optional<size_t> pieceSize = attributePieceSize(env, file, nullptr);
  if (!pieceSize) return false;
  bool can = false;
  if (*pieceSize > 0) {
    const std::vector<uint8_t> fork(kProbeForkSize, 0xA5);
    Error error;
    can = AttributeFork::write(env, file, fork.data(), fork.size(), &error);
    // A volume that is merely out of space says nothing about what it can hold.
    if (!can && error.code != ENOSPC && error.code != E2BIG && error.code != ERANGE &&
        error.code != EDQUOT) {
      return false;
    }
  }
  learn(*key, &Facts::canHold, can);
  return can;
}

std::optional<size_t> VolumeCapabilities::measuredPieceSize(Env& env, const std::string& path) {
  std::optional<VolumeKey> key = keyOf(env, FileRef::atPath(path, true));
  if (!key) return std::nullopt;
  return known(*key, &Facts::pieceSize);
}

bool VolumeCapabilities::supportsExchange(Env& env, const std::string& path) {
  std::optional<VolumeKey> key = keyOf(env, FileRef::atPath(path, true));
  if (!key) return false;
  if (auto can = known(*key, &Facts::exchange)) return *can;
  for (const std::string& place : scratchPlaces(env, directoryOf(env, path), key->device, true)) {
    // What runs killed in the middle of this left behind.
    removeProbeLeftovers(env, place);
    auto a = namedProbe(env, place);
    if (!a) continue;
    auto b = namedProbe(env, place);
    if (!b || !onDevice(env, a->fd.get(), key->device)) {
      env.unlink(a->path);
      if (b) env.unlink(b->path);
      continue;
    }
    struct stat before, after;
    const bool swapped = env.fstat(b->fd.get(), &before) == 0 &&
                         env.exchange(a->path, b->path) == 0 &&
                         env.lstat(a->path, &after) == 0 && after.st_ino == before.st_ino;
    const int err = errno;
    env.unlink(a->path);
    env.unlink(b->path);
    if (swapped || err == EINVAL || err == ENOTSUP || err == ENOSYS) {
      learn(*key, &Facts::exchange, swapped);
      return swapped;
    }
    return false;
  }
  return false;
}

bool VolumeCapabilities::isProbeName(std::string_view name) {
  for (std::string_view probe : {kExchangeProbe, kScratchProbe}) {
    if (name.size() == probe.size() + 6 && name.substr(0, probe.size()) == probe) return true;
  }
  return false;
}

void VolumeCapabilities::forget() {
  std::lock_guard lock(g_mutex);
  facts().clear();
}

}  // namespace zephlore
