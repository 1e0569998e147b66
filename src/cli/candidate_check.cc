#include "cli/candidate_check.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "engine/compressed_file_info.h"
#include "engine/path_checks.h"
#include "engine/extended_attributes_helper.h"

namespace zephlore::cli {
namespace {

std::optional<FileResult> inspectQuickly(const WalkEntry& entry, CompressedFileInfo* info) {
  Error error;
  if (CompressedFileInfo::inspect(std::string(entry.path), info, &error, /*checkFork=*/false)) {
    return std::nullopt;
  }
  struct stat st;
  if (fstatat(entry.dir_fd, entry.name, &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
    return skipped(std::string(entry.path), SkipReason::kVanished, 0, entry.named);
  }
  return failed(std::string(entry.path), error, static_cast<uint64_t>(entry.st->st_size), entry.named);
}

// Whether this process may give a file the group `gid`: the copy that
// replaces a file must keep its owner and group.
bool mayKeepGroup(gid_t gid) {
  if (geteuid() == 0 || gid == getegid()) return true;
  const int n = getgroups(0, nullptr);
  if (n <= 0) return false;
  std::vector<gid_t> groups(static_cast<size_t>(n));
  const int got = getgroups(n, groups.data());
  return std::find(groups.begin(), groups.begin() + std::max(got, 0), gid) != groups.begin() + std::max(got, 0);
}

// A path the engine refuses on purpose (its crash record would not hold it
// faithfully): skipped, not failed.
bool hasUnsafeName(std::string_view path) {
  return !checkPathForRewrite(std::string(path), nullptr);
}

}  // namespace

std::optional<FileResult> checkCompressCandidate(const WalkEntry& entry, bool may_change) {
  const struct stat& st = *entry.st;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  auto skip = [&](SkipReason reason) {
    return std::optional<FileResult>(skipped(std::string(entry.path), reason, size, entry.named));
  };
  if (!S_ISREG(st.st_mode)) return skip(SkipReason::kNotRegular);
  // The cheap tests on the walk's lstat first, attributes only after them.
  // A compressed file has an empty data fork, so a small size needs one look
  // at the attributes to tell "already compressed" (or written into since)
  // from "too small".
  if (size < kMinimumCompressSize) {
    if (KRExtendedAttributesHelper::isCompressionAttributeSetAt(std::string(entry.path))) {
      return skip(size == 0 ? SkipReason::kAlreadyCompressed : SkipReason::kCompressionAttributes);
    }
    return skip(SkipReason::kTooSmall);
  }
  if (st.st_uid != getuid()) return skip(SkipReason::kNotOwned);
  if (!mayKeepGroup(st.st_gid)) return skip(SkipReason::kNotInGroup);
  if (st.st_nlink > 1) return skip(SkipReason::kHardLinks);
  if (hasUnsafeName(entry.path)) return skip(SkipReason::kUnsafeName);
  if (faccessat(entry.dir_fd, entry.name, W_OK, AT_EACCESS) != 0) {
    if (errno == ENOENT) return skip(SkipReason::kVanished);
    return skip(SkipReason::kNotWritable);
  }
  CompressedFileInfo info;
  if (std::optional<FileResult> problem = inspectQuickly(entry, &info)) return problem;
  if (info.hasCompressedFlag || info.hasDecmpfs || info.hasResourceFork) {
    // Data beside the attributes: written after it was compressed.
    return skip(info.dataForkSize > 0 ? SkipReason::kCompressionAttributes : SkipReason::kAlreadyCompressed);
  }
  if (info.hasExcludeMarker &&
      KRExtendedAttributesHelper::isUncompressableAttributeValidAt(std::string(entry.path), may_change)) {
    return skip(SkipReason::kMarkedNotCompressible);
  }
  return std::nullopt;
}

std::optional<FileResult> checkDecompressCandidate(const WalkEntry& entry) {
  const struct stat& st = *entry.st;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  if (!S_ISREG(st.st_mode)) return skipped(std::string(entry.path), SkipReason::kNotRegular, size, entry.named);
  if (hasUnsafeName(entry.path)) return skipped(std::string(entry.path), SkipReason::kUnsafeName, size, entry.named);
  CompressedFileInfo info;
  if (std::optional<FileResult> problem = inspectQuickly(entry, &info)) return problem;
  if (info.state == CompressionState::kPlain) {
    return skipped(std::string(entry.path), SkipReason::kNotCompressed, size, entry.named);
  }
  // Compressed, and also the odd states: the expander refuses those with a
  // clear error of its own, which the run reports as a failure.
  return std::nullopt;
}

}  // namespace zephlore::cli
