// Commands that look at or repair the stored form of files (info, cat,
// repair) work on the files beneath any view covering them: through a view
// a compressed file looks plain and its layout is hidden.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/env.h"
#include "platform/path_map.h"

namespace zephlore::cli {

// The stored files beneath the live views: `paths` with those a view covers
// made absolute, the form the path map knows (the others as they are), and
// the Env to reach them through, one that applies the map over `env`.
// Without a live view that is `env` itself. `command` names the caller in
// the note on standard error, which `quiet` leaves out.
// Says, once per view, when a path lies in a view whose process is gone
// (programs there get ENOTCONN, and the stored files cannot be reached
// until it is back), with the one command that puts it back. Whether any did.
bool reportDeadViews(const std::vector<std::string>& paths, const char* command);

class WorkBeneathViews {
 public:
  WorkBeneathViews(Env& env, const std::vector<std::string>& paths, const char* command, bool quiet);
  WorkBeneathViews(const WorkBeneathViews&) = delete;
  WorkBeneathViews& operator=(const WorkBeneathViews&) = delete;

  Env& env() { return mapping_ ? *mapping_ : env_; }
  const std::vector<std::string>& paths() const { return paths_; }

 private:
  Env& env_;
  PathMap map_;
  std::unique_ptr<Env> mapping_;
  std::vector<std::string> paths_;
};

}  // namespace zephlore::cli
