#include "platform/metadata_copy.h"

#include <strings.h>

#include <cerrno>

#include "platform/attribute_fork.h"
#include "platform/attribute_names.h"
#include "platform/platform_error.h"

namespace zephlore {

std::optional<MetadataSnapshot> MetadataCopy::capture(Env& env, int fd, Error* error) {
  MetadataSnapshot snapshot;
  if (env.fstat(fd, &snapshot.st) != 0) {
    failWithErrno(error, errno, "cannot read the status of the file");
    return std::nullopt;
  }
  std::optional<std::vector<uint8_t>> acl = env.getAcl(fd);
  if (!acl) {
    failWithErrno(error, errno, "cannot read the access control list of the file");
    return std::nullopt;
  }
  snapshot.acl = std::move(*acl);
  return snapshot;
}

bool MetadataCopy::apply(Env& env, const MetadataSnapshot& snapshot, int fd, Error* error) {
  if (!applyAccess(env, snapshot, fd, error)) return false;
  const struct timespec times[2] = {snapshot.st.st_atim, snapshot.st.st_mtim};
  if (env.futimens(fd, times) != 0) {
    return failWithErrno(error, errno, "cannot give the new file its times");
  }
  return true;
}

bool MetadataCopy::applyAccess(Env& env, const MetadataSnapshot& snapshot, int fd, Error* error) {
  const struct stat& want = snapshot.st;
  struct stat have;
  if (env.fstat(fd, &have) != 0) return failWithErrno(error, errno, "cannot read the new file");
  // Owner first: a change of owner clears set-id bits, which the mode then restores.
  if ((have.st_uid != want.st_uid || have.st_gid != want.st_gid) &&
      env.fchown(fd, want.st_uid, want.st_gid) != 0) {
    return failWithErrno(error, errno, "cannot give the new file its owner and group");
  }
  // The ACL before the mode: setting an ACL rewrites the group bits, and
  // the mode then sets the ACL's mask back to what it was.
  if (env.setAcl(fd, snapshot.acl) != 0) {
    return failWithErrno(error, errno, "cannot give the new file its access control list");
  }
  if (env.fchmod(fd, want.st_mode & 07777) != 0) {
    return failWithErrno(error, errno, "cannot give the new file its mode");
  }
  return true;
}

bool MetadataCopy::isSkipped(const std::string& name, const std::vector<std::string>& skipping) {
  const bool forkPiece = AttributeFork::pieceIndex(name).has_value();
  for (const std::string& skip : skipping) {
    if (strcasecmp(name.c_str(), skip.c_str()) == 0) return true;
    if (forkPiece && strcasecmp(skip.c_str(), attr::kResourceFork) == 0) return true;
  }
  return false;
}

bool MetadataCopy::copyUserAttributes(Env& env, const FileRef& from, const FileRef& to,
                                      const std::vector<std::string>& skipping, Error* error) {
  std::optional<std::vector<std::string>> names = env.listxattr(from);
  if (!names) {
    return failWithErrno(error, errno, "cannot list the attributes of " + from.describe());
  }
  bool ok = true;
  for (const std::string& name : *names) {
    if (isSkipped(name, skipping)) continue;
    std::optional<std::vector<uint8_t>> value = env.getxattrValue(from, name);
    if (!value) {
      if (errno == ENODATA) continue;  // removed meanwhile
      if (ok) failWithErrno(error, errno, "cannot read the attribute " + name + " of " + from.describe());
      ok = false;
      continue;
    }
    if (env.setxattr(to, name, value->data(), value->size(), 0) != 0) {
      if (ok) failWithErrno(error, errno, "cannot copy the attribute " + name + " to " + to.describe());
      ok = false;
    }
  }
  return ok;
}

}  // namespace zephlore
