// Start-up recovery: repairs the file a run left inside its critical section
// (the swap), from the path and size its in-process record kept.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "engine/compressed_file_info.h"
#include "engine/hfs_compressed_file_representation.h"
#include "engine/hfs_refusal_codes.h"
#include "engine/hfs_uncompressor.h"
#include "engine/sibling_temp_file.h"
#include "platform/attribute_fork.h"
#include "platform/attribute_names.h"

namespace zephlore {
namespace {

// A leftover of ours beside the file, and what it holds.
struct Leftover {
  bool exists = false;
  bool hasFork = false;
  struct stat st {};
};

Leftover examineLeftover(Env& env, const std::string& name) {
  Leftover leftover;
  if (env.lstat(name, &leftover.st) != 0) return leftover;
  // Only a regular file of ours with one link; anything else is not touched.
  if (!S_ISREG(leftover.st.st_mode) || leftover.st.st_uid != geteuid() || leftover.st.st_nlink != 1) {
    return leftover;
  }
  leftover.exists = true;
  leftover.hasFork = AttributeFork::isPresent(env, FileRef::atPath(name));
  return leftover;
}

void removeLeftover(Env& env, const std::string& name, const std::string& path) {
  if (!SiblingTempFile::removeOwnLeftover(env, name)) return;
  KRLog("Removed the temporary copy %s left beside %s", name.c_str(), path.c_str());
}

}  // namespace

bool QVHFSCompressedFileRepresentation::recoverInProcessFileAtPath(Env& env, const std::string& path, uint64_t expectedSize) {
  const std::string copyName = SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kCompressedCopy);
  // An expansion cut short: it replaces the file only when complete, so the
  // file still holds its data.
  removeLeftover(env, SiblingTempFile::nameFor(path, SiblingTempFile::Kind::kExpandedCopy), path);

  struct stat st;
  if (env.lstat(path, &st) != 0) return true;  // the file is gone
  if (!S_ISREG(st.st_mode)) return true;       // not ours to repair
  CompressedFileInfo info;
  {
    UniqueFd fd(env.open(path, O_RDONLY | O_NONBLOCK));
    if (!fd || env.fstat(fd.get(), &st) != 0) return false;
    Error why;
    if (!CompressedFileInfo::inspect(env, fd.get(), st, &info, &why, false)) {
      KRLog("**** Could not examine %s for recovery: %s", path.c_str(), why.message.c_str());
      return false;
    }
  }
  Leftover copy = examineLeftover(env, copyName);

  if (info.hasCompressedFlag) {
    // The swap completed; the copy's name holds the original data, which the
    // compressed file now holds too.
    if (info.state == CompressionState::kCompressed && copy.exists && !copy.hasFork) removeLeftover(env, copyName, path);
    return true;
  }
  if (!info.hasResourceFork) {
    // The swap never happened: the file is as it was, and a copy beside it is
    // the prepared compressed copy, made from the file's data.
    if (copy.exists && copy.hasFork && copy.st.st_size == 0) removeLeftover(env, copyName, path);
    return st.st_size != 0;
  }

  // A fork without the flag: a conversion cut short inside the swap.
  if (!info.hasDecmpfs) {
    HFSPlusDecmpfs header =
        QVHFSCompressionStructsHelper::createDecmpfsStructForSize(static_cast<int64_t>(expectedSize));
    if (env.setxattr(FileRef::atPath(path), attr::kDecmpfs, &header, sizeof header, 0) != 0) {
      int err = errno;
      KRLog("**** Could not set the compression header of %s, errno: %d [%s]", path.c_str(), err, strerror(err));
    }
  }
  Error why;
  if (QVHFSUncompressor::expandInPlacePath(env, path, &why, nullptr, nullptr, true)) {
    if (copy.exists && !copy.hasFork) removeLeftover(env, copyName, path);
    return true;
  }
  KRLog("**** Could not expand %s in recovery: %s", path.c_str(), why.message.c_str());
  // A program writing the file would lose what it writes with the file
  // replaced: left for a later run.
  if (why.code == kHFSErrorOpenForWriting) return false;
  // The original data beside it brings the file back as it was.
  if (copy.exists && !copy.hasFork && static_cast<uint64_t>(copy.st.st_size) == expectedSize &&
      env.rename(copyName, path) == 0) {
    KRLog("Restored %s from its original data at %s", path.c_str(), copyName.c_str());
    return true;
  }
  return false;
}

}  // namespace zephlore
