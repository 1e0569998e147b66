#include "platform/acting_as.h"

#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zephlore {
namespace {

// The system calls themselves: the C library's setgroups() changes every
// thread of the process, and only this thread may change.
bool setThreadGroups(const std::vector<gid_t>& groups) {
  return syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

}  // namespace

ActingAs::ActingAs(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
  if (geteuid() != 0 || uid == 0) return;
  savedUid_ = geteuid();
  savedGid_ = getegid();
  const int count = getgroups(0, nullptr);
  if (count < 0) return;
  savedGroups_.resize(static_cast<size_t>(count));
  if (getgroups(count, savedGroups_.data()) != count) return;
  if (!setThreadGroups(groups)) return;
  // The group first: once the user is another, the right to change it is gone.
  setfsgid(gid);
  setfsuid(uid);
  switched_ = true;
}

ActingAs::~ActingAs() {
  if (!switched_) return;
  setfsuid(savedUid_);
  setfsgid(savedGid_);
  setThreadGroups(savedGroups_);
}

}  // namespace zephlore
