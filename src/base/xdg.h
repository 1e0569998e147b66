// Where a user's own files go (the XDG base directories), and folders made
// only for this user. Every per-user path of the system is derived here, so
// the rules (and the one user-database lookup) exist once.
#pragma once

#include <optional>
#include <string>

#include "base/error.h"

namespace zephlore {

// $HOME when it is an absolute path, else the home of the user database
// (looked up once per process); "" when neither is known.
std::string homeFolder();

// $XDG_DATA_HOME when absolute (a relative one is ignored with a log line),
// else home + "/.local/share", else the private runtime folder; none when no
// place is known.
std::optional<std::string> dataHome();

// $XDG_CONFIG_HOME when absolute, else home + "/.config", else the private
// runtime folder; "" when no place is known.
std::string configHome();

// A private folder of this process's own in $XDG_RUNTIME_DIR ("zephlore",
// mode 0700), created when missing. None when XDG_RUNTIME_DIR is unset or
// not a private folder of this user: never a shared directory such as /tmp.
std::optional<std::string> privateRuntimeFolder(Error* error = nullptr);

// Creates `path` and its missing parents with mode 0700. False (and a filled
// `error`) when it is not a folder afterwards.
bool makeFolders(const std::string& path, Error* error = nullptr);

// Creates `path` (not its parents) with mode 0700 if missing and checks it is
// a real directory owned by this user with no group or other access. None
// and a filled `error` otherwise; a symlink is never followed.
std::optional<std::string> makePrivateDirectory(const std::string& path, Error* error = nullptr);

// A folder to make a private one in: ours or root's and not writable by
// others, who could otherwise swap what we make there.
bool isSafeParent(const std::string& path, Error* error = nullptr);

}  // namespace zephlore
