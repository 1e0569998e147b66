// Views over watched folders, for the helper: each view runs in a process of
// its own (`zephlore mount --over FOLDER`), so that the writes of other
// programs through it are not the helper's own, and outlives the helper, so
// that programs keep reading full content while it is away. The helper does
// its own work on the files beneath, through beneath().
#pragma once

#include <string>

#include "base/error.h"

namespace zephlore::view {

class ViewMounter {
 public:
  // `command` runs views: by default the zephlore command beside this
  // program, else the one on PATH.
  explicit ViewMounter(std::string command = defaultCommand());

  // Whether this process can mount views: /dev/fuse is there and usable,
  // and fusermount3 is on PATH (or this process is root).
  static bool fuseUsable();
  static std::string defaultCommand();

  // Mounts a view over `folder` unless one covers it already (a view left
  // dead by a killed process is replaced). False with the command's reason.
  bool mountOver(const std::string& folder, Error* error);

  // The path through which `folder`'s stored files are reached: beneath its
  // view, or `folder` itself without one.
  std::string beneath(const std::string& folder) const;

  // For a folder no longer watched: unmounts its view once no file in it is
  // compressed. False when the view stays, with the reason in `*why` (for
  // zephlore status): a compressed file, which programs would see empty
  // without the view, or files in it still open.
  bool unmountIfUnused(const std::string& folder, std::string* why);

 private:
  std::string command_;
};

}  // namespace zephlore::view
