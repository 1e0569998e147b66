#include "engine/attribute_space_failure.h"

#include <sys/statfs.h>

#include <cerrno>
#include <cstring>

#include "engine/hfs_error_codes.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_refusals.h"
#include "engine/volume.h"
#include "platform/volume_capabilities.h"

namespace zephlore {
namespace {

bool volumeRefused(int err) { return err == E2BIG || err == ENOSPC || err == EDQUOT || err == ERANGE; }

bool nearlyFull(Env& env, int fd) {
  struct statfs fs;
  if (env.fstatfs(fd, &fs) != 0) return false;
  return static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize) < kNearlyFullVolumeBytes;
}

bool isExt4(Env& env, const std::string& path) { return QVVolume::fileSystemTypeForPath(env, path) == "ext4"; }

bool cannotHold(Error* error, const std::string& path, const std::string& why) {
  return fail(error, kHFSErrorDomain, kHFSErrorVolumeCannotHold,
              "The volume of " + path + " cannot hold the compressed form: " + why);
}

}  // namespace

bool attributeWriteFailure(Env& env, Error* error, const std::string& path, int copyFd, int err,
                           const std::string& why, uint64_t storedBytes) {
  if (err == EFBIG) return refuse(error, kHFSErrorTooLargeForForm, path, why);
  if (err == ENOTSUP) return cannotHold(error, path, "the file system takes no user attributes");
  if (!volumeRefused(err)) {
    return fail(error, kHFSErrorDomain, kHFSErrorCouldNotRead,
                "Could not create compressed file at " + path + ": " + why);
  }
  // A full volume (or quota) is just that; the file fits once there is room.
  if (err == EDQUOT || nearlyFull(env, copyFd)) {
    return cannotHold(error, path, "it is full (" + why + ")");
  }
  if (!VolumeCapabilities::canHoldCompressedForm(env, path)) {
    std::optional<size_t> most = VolumeCapabilities::attributePieceSize(env, FileRef::descriptor(copyFd), nullptr);
    std::string limit = most ? "the file system accepts at most " + std::to_string(*most) +
                                   " bytes of attributes per file"
                             : "the file system accepts too few bytes of attributes per file";
    if (isExt4(env, path)) limit += " (ext4 without ea_inode)";
    return cannotHold(error, path, limit);
  }
  // The volume holds the form, but not this much of it on one file.
  std::string detail = "its volume took " + std::to_string(storedBytes) +
                       " bytes of its compressed data as attributes and refused more";
  if (isExt4(env, path)) {
    detail += "; ext4 names a file's attributes in one block, about 6 MiB of compressed data with 4 KiB blocks";
  }
  return refuse(error, kHFSErrorTooLargeForForm, path, detail);
}

}  // namespace zephlore
