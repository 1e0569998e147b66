#include "engine/candidate_check.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "engine/compressed_file_info.h"
#include "engine/extended_attributes_helper.h"
#include "engine/path_checks.h"

namespace zephlore {
namespace {

CandidateRejection inspectQuickly(Env& env, const WalkEntry& entry, CompressedFileInfo* info, Error* error) {
  Error failure;
  if (CompressedFileInfo::inspect(env, std::string(entry.path), info, &failure, /*checkFork=*/false)) {
    return CandidateRejection::kNone;
  }
  struct stat st;
  if (env.fstatAt(entry.dir_fd, entry.name, &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
    return CandidateRejection::kVanished;
  }
  if (error) *error = std::move(failure);
  return CandidateRejection::kUnreadable;
}

// Whether this process may give a file the group `gid`: the copy that
// replaces a file must keep its owner and group.
bool mayKeepGroup(gid_t gid) {
  if (geteuid() == 0 || gid == getegid()) return true;
  const int n = getgroups(0, nullptr);
  if (n <= 0) return false;
  std::vector<gid_t> groups(static_cast<size_t>(n));
  const int got = std::max(getgroups(n, groups.data()), 0);
  return std::find(groups.begin(), groups.begin() + got, gid) != groups.begin() + got;
}

// A path the engine refuses on purpose (its crash record would not hold it
// faithfully).
bool hasUnsafeName(std::string_view path) { return !checkPathForRewrite(std::string(path), nullptr); }

}  // namespace

CandidateRejection checkCompressCandidate(Env& env, const WalkEntry& entry, bool may_change, Error* error) {
  const struct stat& st = *entry.st;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  if (!S_ISREG(st.st_mode)) return CandidateRejection::kNotRegular;
  // The cheap tests on the walk's lstat first, attributes only after them.
  // A compressed file has an empty data fork, so a small size needs one look
  // at the attributes to tell "already compressed" (or written into since)
  // from "too small".
  if (size < kMinimumCompressSize) {
    if (KRExtendedAttributesHelper::isCompressionAttributeSetAt(env, std::string(entry.path))) {
      return size == 0 ? CandidateRejection::kAlreadyCompressed : CandidateRejection::kCompressionAttributes;
    }
    return CandidateRejection::kTooSmall;
  }
  if (st.st_uid != getuid()) return CandidateRejection::kNotOwned;
  if (!mayKeepGroup(st.st_gid)) return CandidateRejection::kNotInGroup;
  if (st.st_nlink > 1) return CandidateRejection::kHardLinks;
  if (st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) return CandidateRejection::kExecutable;
  if (hasUnsafeName(entry.path)) return CandidateRejection::kUnsafeName;
  if (env.accessAt(entry.dir_fd, entry.name, W_OK) != 0) {
    return errno == ENOENT ? CandidateRejection::kVanished : CandidateRejection::kNotWritable;
  }
  CompressedFileInfo info;
  if (CandidateRejection problem = inspectQuickly(env, entry, &info, error); problem != CandidateRejection::kNone) {
    return problem;
  }
  if (info.hasCompressedFlag || info.hasDecmpfs || info.hasResourceFork) {
    // Data beside the attributes: written after it was compressed.
    return info.dataForkSize > 0 ? CandidateRejection::kCompressionAttributes : CandidateRejection::kAlreadyCompressed;
  }
  if (info.hasExcludeMarker &&
      KRExtendedAttributesHelper::isUncompressableAttributeValidAt(env, std::string(entry.path), may_change)) {
    return CandidateRejection::kMarkedNotCompressible;
  }
  return CandidateRejection::kNone;
}

CandidateRejection checkDecompressCandidate(Env& env, const WalkEntry& entry, Error* error) {
  if (!S_ISREG(entry.st->st_mode)) return CandidateRejection::kNotRegular;
  if (hasUnsafeName(entry.path)) return CandidateRejection::kUnsafeName;
  CompressedFileInfo info;
  if (CandidateRejection problem = inspectQuickly(env, entry, &info, error); problem != CandidateRejection::kNone) {
    return problem;
  }
  // Compressed, and also the odd states: the expander refuses those with a
  // clear error of its own, which the run reports as a failure.
  return info.state == CompressionState::kPlain ? CandidateRejection::kNotCompressed : CandidateRejection::kNone;
}

}  // namespace zephlore
