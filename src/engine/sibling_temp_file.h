// The temporary copy that replaces a file is built beside it, on its volume,
// so that one rename or name exchange can swap it in.
//
// It starts as an unnamed file (O_TMPFILE): a crash while it is being filled
// leaves nothing behind. It gets a name only just before the swap. The name
// is derived from the file's own name and is the same in every run, so that
// the next start's recovery can find and remove a copy a crash left behind.
// Where the file system has no unnamed files the copy is created at its name
// at once (O_EXCL, never through a symbolic link).
#pragma once

#include <string>

#include "platform/env.h"

namespace zephlore {

class SiblingTempFile {
 public:
  enum class Kind : char { kCompressedCopy = 'c', kExpandedCopy = 'x' };

  // The name beside `path` for its temporary copy of `kind`:
  // ".zephlore-<16 hex digits of a hash of the file name>.<c|x>".
  static std::string nameFor(const std::string& path, Kind kind);

  // Removes what a crashed run left at `name`: only a regular file of this
  // user with a single link. Anything else (a planted symbolic link, a
  // directory, another user's file) is left alone and false is returned with
  // errno EEXIST; false with ENOENT when there is nothing.
  // A copy a live run works with is locked (flock) by it, and not removed.
  static bool removeOwnLeftover(Env& env, const std::string& name);
  // Whether a live run holds the copy at `name`.
  static bool isHeld(Env& env, const std::string& name);
  // Whether a copy of this process has that name now.
  static bool isInUseHere(const std::string& name);

  SiblingTempFile(Env& env, std::string targetPath, Kind kind);
  ~SiblingTempFile();  // closes; unlinks the name if it still holds our copy
  SiblingTempFile(const SiblingTempFile&) = delete;
  SiblingTempFile& operator=(const SiblingTempFile&) = delete;

  // Creates the copy with exactly `mode` in the target's directory (an
  // inherited default ACL is masked to it). False with errno set.
  bool create(mode_t mode);
  // Gives the copy its name (nothing to do when it already has one), first
  // removing a leftover of our own there. False with errno set.
  bool link();
  // Links the copy at `path` itself (for a target that does not exist yet);
  // never replaces anything there (EEXIST).
  bool linkAt(const std::string& path);
  // The name no longer holds our copy (it was renamed over the target, or
  // now holds the target's old data that must be kept): do not unlink it.
  void forgetName() { named_ = false; }
  // Unlinks the copy's name now.
  bool unlinkName();

  int fd() const { return fd_.get(); }
  const std::string& name() const { return name_; }
  bool named() const { return named_; }

 private:
  // removeOwnLeftover() without asking whether this process uses the name.
  static bool removeUnheld(Env& env, const std::string& name);

  Env& env_;
  std::string target_;
  std::string name_;
  UniqueFd fd_;
  bool named_ = false;
};

}  // namespace zephlore
