// A thread acting on files as another user, for a file system that serves
// other users' calls as root: what it creates is theirs, and the file
// system beneath checks the access as theirs.
#pragma once

#include <sys/types.h>

#include <vector>

namespace zephlore {

class ActingAs {
 public:
  // Takes the user's file-system identity (user, group and supplementary
  // groups) for this thread alone. Does nothing unless this process is root
  // and `uid` is another user.
  ActingAs(uid_t uid, gid_t gid, const std::vector<gid_t>& groups);
  ~ActingAs();
  ActingAs(const ActingAs&) = delete;
  ActingAs& operator=(const ActingAs&) = delete;

 private:
  bool switched_ = false;
  uid_t savedUid_ = 0;
  gid_t savedGid_ = 0;
  std::vector<gid_t> savedGroups_;
};

}  // namespace zephlore
