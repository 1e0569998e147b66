// Views over watched folders, for the helper: each view runs in a process of
// its own (`zephlore mount --over FOLDER`), so that the writes of other
// programs through it are not the helper's own, and outlives the helper, so
// that programs keep reading full content while it is away. The helper does
// its own work on the files beneath, through beneath().
#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>

#include "base/error.h"
#include "platform/env.h"

namespace zephlore::view {

// The process serving a live view, and the path through which it reaches
// the tree it shows (through the process's descriptor on it).
struct ServingView {
  pid_t pid = 0;
  std::string beneath;
};

class ViewMounter {
 public:
  // `command` runs views (see defaultCommand); `env` reaches the folders.
  ViewMounter(Env& env, std::string command);
  virtual ~ViewMounter() = default;

  // Whether this process can mount views: /dev/fuse is there and usable,
  // and fusermount3 is on PATH (or this process is root).
  static bool fuseUsable();
  // The zephlore command that serves a view: the one beside this program,
  // else the first on PATH.
  static std::string defaultCommand();

  // Mounts a view over `folder` unless a live one is mounted there. A view
  // left dead by a killed process is detached first (lazily, as files may
  // still be open in it), so that the new one shows the stored files, not
  // the dead mount. False with the command's reason.
  virtual bool mountOver(const std::string& folder, Error* error);

  // The live view mounted exactly on `folder`; none when there is none or
  // its process is gone.
  virtual std::optional<ServingView> servingView(const std::string& folder) const;

  // Whether a view is mounted exactly on `folder`, live or dead.
  virtual bool covered(const std::string& folder) const;

  // The path through which `folder`'s stored files are reached: beneath its
  // view, or `folder` itself without one.
  std::string beneath(const std::string& folder) const;

  // The helper's own descriptor (O_PATH) of the tree a live view shows,
  // taken through the view's; -1 with errno on failure.
  virtual int openTree(const ServingView& view) const;

  // A descriptor that becomes readable when process `pid` ends (a pidfd);
  // -1 with errno when the kernel gives none.
  static int watchProcess(pid_t pid);

  // For a folder no longer watched: unmounts its view once no file in it is
  // compressed. False when the view stays, with the reason in `*why` (for
  // zephlore status): a compressed file, which programs would see empty
  // without the view, or files in it still open.
  virtual bool unmountIfUnused(const std::string& folder, std::string* why);

 private:
  // Logs, once, that views lock other users out (see othersLockedOutAdvice).
  void noteIfOthersLockedOut(const std::string& mountPoint);

  Env& env_;
  std::string command_;
  std::atomic<bool> toldOthersLockedOut_{false};
};

}  // namespace zephlore::view
