// What a rewritten file keeps from the file it replaces: mode (set-id and
// sticky bits included), owner and group, access and modification times to
// the nanosecond, the POSIX access ACL, and the user attributes.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore {

struct MetadataSnapshot {
  struct stat st {};
  std::vector<uint8_t> acl;  // empty: nothing beyond the mode bits
};

class MetadataCopy {
 public:
  MetadataCopy() = delete;

  // The metadata of an open file, taken before it is rewritten.
  static std::optional<MetadataSnapshot> capture(Env& env, int fd, Error* error);
  // Gives an open file the captured owner and group (only when they differ:
  // a change needs privileges), ACL, mode and, last, times.
  static bool apply(Env& env, const MetadataSnapshot& snapshot, int fd, Error* error);
  // The same without the times: for a new file made from another (a
  // recovered or expanded copy), which may be read by whom the original may.
  static bool applyAccess(Env& env, const MetadataSnapshot& snapshot, int fd, Error* error);

  // Copies the user attributes of `from` onto `to`, except the names in
  // `skipping` (compared without regard to case; skipping
  // "com.apple.ResourceFork" skips its further pieces too). Every attribute
  // is tried; false, with the first failure, if any could not be copied.
  static bool copyUserAttributes(Env& env, const FileRef& from, const FileRef& to,
                                 const std::vector<std::string>& skipping, Error* error);

  // Whether `name` is one of `skipping` by the rule above.
  static bool isSkipped(const std::string& name, const std::vector<std::string>& skipping);
};

}  // namespace zephlore
